#include "backup_restore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QFileInfo>

#include "backup_manifest.h"
#include "disk_flush.h"
#include "drive_tree.h"
#include "file_hash.h"
#include "verified_copy.h"

namespace {

QString shown(const QByteArray& rel) { return QString::fromUtf8(rel); }

QString failureLine(const QByteArray& rel, VerifiedCopy::Outcome outcome) {
    switch (outcome) {
        case VerifiedCopy::Outcome::SourceUnreadable:
            return shown(rel) + QStringLiteral(" (could not read it in the backup folder)");
        case VerifiedCopy::Outcome::SourceDamaged:
            return shown(rel) +
                   QStringLiteral(" (the copy in the backup folder is damaged; it no longer matches its fingerprint)");
        case VerifiedCopy::Outcome::DiskFull: return shown(rel) + QStringLiteral(" (the drive is full)");
        default: return shown(rel) + QStringLiteral(" (what arrived on the drive did not match the backup)");
    }
}

// What the drive holds at rel now, against the backup's fingerprint of it.
enum class OnDrive { Nothing, Same, Different, Blocked };

OnDrive lookAt(int driveFd, const QByteArray& rel, const QString& sha256) {
    QByteArray leaf;
    int parent = DriveTree::openParentMaking(driveFd, rel, leaf);
    if (parent < 0) return OnDrive::Blocked;  // a file or a link stands where a folder should be
    struct stat st {};
    bool exists = ::fstatat(parent, leaf.constData(), &st, AT_SYMLINK_NOFOLLOW) == 0;
    ::close(parent);
    if (!exists) return OnDrive::Nothing;
    int fd = S_ISREG(st.st_mode) ? DriveTree::openFile(driveFd, rel) : -1;
    if (fd < 0) return OnDrive::Different;
    std::optional<QString> sha = FileHash::ofDescriptor(fd);
    ::close(fd);
    return sha && *sha == sha256 ? OnDrive::Same : OnDrive::Different;
}

class Restore {
public:
    Restore(int folderFd, int driveFd, const Backup::RunOptions& options, RestoreResult& result)
        : folderFd_(folderFd), driveFd_(driveFd), options_(options), result_(result) {}

    void all(const std::map<QByteArray, BackupEntry>& rows) {
        BackupProgress progress{0, static_cast<int>(rows.size()), 0, 0};
        for (const auto& [rel, row] : rows) progress.bytesTotal += row.size;
        for (const auto& [rel, row] : rows) {
            one(row);
            ++progress.filesDone;
            progress.bytesDone += row.size;
            if (options_.progress) options_.progress(progress);
        }
    }

private:
    void one(const BackupEntry& row) {
        int src = DriveTree::openFile(folderFd_, row.path);
        if (src < 0) {
            result_.failures << shown(row.path) + QStringLiteral(" (not in the backup folder)");
            return;
        }
        // The drive's own file is never replaced: a differing one keeps its place and the
        // backup's copy goes beside it, under the first free "(from backup)" name.
        QByteArray target = row.path;
        OnDrive there = OnDrive::Different;
        for (int attempt = 0; attempt < 100 && there == OnDrive::Different; ++attempt) {
            if (attempt > 0) target = Backup::besideName(row.path, attempt);
            there = lookAt(driveFd_, target, row.sha256);
        }
        if (there == OnDrive::Same) {
            ++(target == row.path ? result_.alreadyThere : result_.keptBeside);
            ::close(src);
            return;
        }
        if (there != OnDrive::Nothing) {
            ::close(src);
            result_.failures << shown(row.path) + QStringLiteral(" (something on the drive stands in its place)");
            return;
        }
        VerifiedCopy::Outcome outcome = put(src, target, row);
        ::close(src);
        if (outcome != VerifiedCopy::Outcome::Verified) {
            result_.failures << failureLine(row.path, outcome);
            return;
        }
        ++(target == row.path ? result_.restored : result_.keptBeside);
        result_.bytes += row.size;
    }

    VerifiedCopy::Outcome put(int src, const QByteArray& target, const BackupEntry& row) {
        VerifiedCopy::Request request{src, -1, {}, {static_cast<time_t>(row.modified), 0}, row.sha256, true};
        request.dirFd = DriveTree::openParentMaking(driveFd_, target, request.leaf);
        if (request.dirFd < 0) return VerifiedCopy::Outcome::Failed;
        VerifiedCopy::Copied copied;
        VerifiedCopy::Outcome outcome = VerifiedCopy::copy(request, copied);
        ::close(request.dirFd);
        return outcome;
    }

    int folderFd_;
    int driveFd_;
    const Backup::RunOptions& options_;
    RestoreResult& result_;
};

RestoreResult failed(const QString& why) {
    RestoreResult r;
    r.error = why;
    return r;
}

QString files(int n) { return QStringLiteral("%1 file%2").arg(n).arg(n == 1 ? "" : "s"); }

}  // namespace

namespace Backup {

QByteArray besideName(const QByteArray& rel, int attempt) {
    QByteArray leaf = DriveTree::leafOf(rel);
    QByteArray folder = rel.left(rel.size() - leaf.size());
    qsizetype dot = leaf.lastIndexOf('.');
    if (dot <= 0) dot = leaf.size();  // no extension, or a hidden file's leading dot
    QByteArray mark =
        attempt <= 1 ? QByteArray(" (from backup)") : " (from backup " + QByteArray::number(attempt) + ")";
    return folder + leaf.left(dot) + mark + leaf.mid(dot);
}

RestoreResult restore(const QString& backupFolder, const QString& driveRoot, const RunOptions& options) {
    if (!QFileInfo::exists(backupFolder + QLatin1Char('/') + QLatin1String(BackupManifest::kFileName)))
        return failed(
            QStringLiteral("%1 holds no backup (it has no %2 file); choose the drive's folder inside Quillmate")
                .arg(backupFolder, QLatin1String(BackupManifest::kFileName)));
    BackupManifest manifest(backupFolder);
    int folderFd = DriveTree::openRoot(backupFolder);
    if (folderFd < 0) return failed(QStringLiteral("cannot read the backup folder"));
    int driveFd = DriveTree::openRoot(driveRoot);
    if (driveFd < 0) {
        ::close(folderFd);
        return failed(QStringLiteral("cannot open the drive"));
    }
    RestoreResult result;
    Restore(folderFd, driveFd, options, result).all(manifest.rows());
    DiskFlush::fileSystemOf(driveFd);  // the renames too, before anyone pulls the stick
    ::close(folderFd);
    ::close(driveFd);
    return result;
}

}  // namespace Backup

QString RestoreResult::summary() const {
    if (error) return QStringLiteral("Putting the writing back failed: ") + *error;
    QString text =
        restored > 0
            ? QStringLiteral("Put back %1 (%2), each one verified.").arg(files(restored), BackupResult::human(bytes))
            : QStringLiteral("Nothing to put back.");
    if (alreadyThere > 0) text += QStringLiteral("  %1 already on the drive.").arg(files(alreadyThere));
    if (keptBeside > 0)
        text += QStringLiteral("  Kept the drive's own version of %1; the backup's copy is beside each, marked "
                               "\"(from backup)\".")
                    .arg(files(keptBeside));
    return text;
}
