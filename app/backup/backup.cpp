#include "backup.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSet>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "backup_lock.h"
#include "backup_manifest.h"
#include "cloud_sync.h"
#include "disk_flush.h"
#include "drive_tree.h"
#include "file_hash.h"
#include "qm_core.h"
#include "regular_file.h"
#include "verified_copy.h"

namespace {

constexpr qint64 kCheckpointMs = 5000;

// The drive's own data and what the deck rewrites all the time; never copied.
bool neverTravels(const QByteArray& rel, bool folder) {
    static const QSet<QByteArray> kNames = {"stats.db", "stats.bak", "settings.cfg", "autosave.md", ".DS_Store",
                                            VerifiedCopy::kPartialName};
    if (rel == ".qm" || rel.startsWith(".qm/")) return true;
    QByteArray name = DriveTree::leafOf(rel);
    // The manifest and what travels with it (its lock, its lost log) are the backup's own files.
    // A restore's temporary file, left behind only by a pulled plug, is not writing either.
    return !folder && (kNames.contains(name) || name.startsWith(BackupManifest::kFileName) ||
                       name.startsWith(".qm-restore-"));
}

// A path as a failure line shows it; bytes that are not UTF-8 show as replacement characters.
QString shown(const QByteArray& rel) { return QString::fromUtf8(rel); }
QString nameOf(const QByteArray& rel) { return shown(DriveTree::leafOf(rel)); }

QString couldNotRead(const QByteArray& rel) {
    return nameOf(rel) + QStringLiteral(" (could not read it on the drive)");
}

QString problemLine(const DriveTree::Problem& p) {
    switch (p.kind) {
        case DriveTree::Problem::TooDeep:
            return shown(p.rel) +
                   QStringLiteral(" (folders nested more than %1 deep are not copied)").arg(DriveTree::kMaxDepth);
        case DriveTree::Problem::Loop:
            return shown(p.rel) +
                   QStringLiteral(" (this folder leads back into itself; the drive's file system may be damaged)");
        case DriveTree::Problem::Unreadable: break;
    }
    return couldNotRead(p.rel);
}

QString copyFailure(const QByteArray& rel, VerifiedCopy::Outcome outcome) {
    switch (outcome) {
        case VerifiedCopy::Outcome::SourceUnreadable: return couldNotRead(rel);
        case VerifiedCopy::Outcome::DiskFull:
            return nameOf(rel) + QStringLiteral(" (the disk holding the backup folder is full)");
        default: return nameOf(rel) + QStringLiteral(" (what arrived did not match what was sent)");
    }
}

int64_t wholeSeconds(const timespec& t) {
    return t.tv_sec < 0 && t.tv_nsec > 0 ? t.tv_sec + 1 : t.tv_sec;  // toward zero
}

int64_t now() { return QDateTime::currentSecsSinceEpoch(); }

int openRegular(const QString& path) {
    return RegularFile::openNoFollow(AT_FDCWD, QFile::encodeName(path).constData());
}

// The folder as it would be after creation: symbolic links in the part that exists resolved.
QString resolved(const QString& path) {
    QString existing = QDir::cleanPath(QDir(path).absolutePath());
    QString rest;
    while (!QFileInfo::exists(existing) && existing != QLatin1String("/")) {
        rest = QFileInfo(existing).fileName() + (rest.isEmpty() ? QString() : QLatin1Char('/') + rest);
        existing = QFileInfo(existing).path();
    }
    QString canonical = QFileInfo(existing).canonicalFilePath();
    if (canonical.isEmpty()) canonical = existing;
    return QDir::cleanPath(rest.isEmpty() ? canonical : canonical + QLatin1Char('/') + rest);
}

bool isInside(const QString& inner, const QString& outer) {
    return inner == outer || inner.startsWith(outer == QLatin1String("/") ? outer : outer + QLatin1Char('/'));
}

// Copies on the drive would be copied again on every run, and a drive inside the folder would
// be backed up into itself.
std::optional<QString> overlapError(const QString& mount, const QString& destination) {
    QString drive = resolved(mount), folder = resolved(destination);
    if (isInside(folder, drive))
        return QStringLiteral("the chosen folder is on the drive itself; choose a folder on this computer");
    if (isInside(drive, folder))
        return QStringLiteral("the drive is inside the chosen folder; choose a folder outside it");
    return std::nullopt;
}

// Makes "Quillmate" and the drive's folder below the chosen folder, and nothing above it: a
// chosen folder that has gone (an unplugged disk) must not be made again on this computer.
std::optional<QString> createFolder(const QString& destination, const QString& folder) {
    if (std::optional<QString> problem = Backup::destinationProblem(destination)) return problem;
    for (const QString& f : {QFileInfo(folder).path(), folder}) {
        if (::mkdir(QFile::encodeName(f).constData(), 0755) != 0 && errno != EEXIST)
            return QString::fromLocal8Bit(std::strerror(errno)) + QStringLiteral(": ") + f;
    }
    return std::nullopt;
}

// Re-reads each chosen copy from the disk and tells whether it still matches its row. Copies are
// independent, so they are hashed on all cores.
std::vector<char> intactCopies(int folderFd, const QList<BackupEntry>& rows,
                               const std::function<void(int64_t)>& checked) {
    std::vector<char> intact(static_cast<size_t>(rows.size()), 0);
    std::atomic<qsizetype> next{0};
    auto work = [&] {
        for (qsizetype i; (i = next++) < rows.size();) {
            const BackupEntry& row = rows[i];
            int fd = DriveTree::openFile(folderFd, row.path);
            struct stat st {};
            if (fd >= 0 && ::fstat(fd, &st) == 0 && st.st_size == row.size) {
                std::optional<QString> sha = VerifiedCopy::hashFromDisk(fd);
                intact[static_cast<size_t>(i)] = sha && *sha == row.sha256;
            }
            if (fd >= 0) ::close(fd);
            checked(row.size);
        }
    };
    unsigned threads = std::clamp<unsigned>(std::thread::hardware_concurrency(), 1, 4);
    if (rows.size() < 8) threads = 1;
    std::vector<std::thread> pool;
    for (unsigned t = 1; t < threads; ++t) pool.emplace_back(work);
    work();
    for (std::thread& t : pool) t.join();
    return intact;
}

class Run {
public:
    Run(int folderFd, int rootFd, BackupManifest& manifest, const Backup::RunOptions& options, BackupResult& result)
        : folderFd_(folderFd), rootFd_(rootFd), options_(options), result_(result), manifest_(manifest) {
        sinceSave_.start();
    }
    ~Run() {
        if (parentFd_ >= 0) ::close(parentFd_);
    }

    bool copyChanged() {
        DriveTree::Listing listing = DriveTree::list(rootFd_, neverTravels);
        if (!listing.opened) return false;
        for (const DriveTree::Problem& p : listing.problems) result_.failures << problemLine(p);
        std::vector<DriveTree::File> changed;
        for (DriveTree::File& f : listing.files) {
            if (!BackupManifest::canRecord(f.rel)) {
                result_.failures << nameOf(f.rel) + QStringLiteral(" (a line break in its name cannot go into the "
                                                                   "backup's list; rename it)");
                continue;
            }
            auto row = manifest_.rows().find(f.rel);
            bool same = row != manifest_.rows().end() && row->second.size == f.size &&
                        row->second.modified >= wholeSeconds(f.mtime);
            if (same && racy(row->second, f)) same = settledByContent(row->second, f.rel);
            if (same)
                ++result_.unchanged;
            else
                changed.push_back(std::move(f));
        }
        std::vector<QByteArray> replaced;
        for (const DriveTree::File& f : changed)
            if (manifest_.rows().count(f.rel)) replaced.push_back(f.rel);
        forget(replaced);
        int64_t total = 0;
        for (const DriveTree::File& f : changed) total += f.size;
        startPhase(changed.size(), total);
        for (const DriveTree::File& f : changed) {
            if (std::optional<VerifiedCopy::Copied> c = copyFromDrive(f.rel)) {
                ++result_.copied;
                result_.bytes += c->bytes;
                touched_.insert(f.rel);
            }
            advance(f.size);
            if (sinceSave_.elapsed() > kCheckpointMs) save();
        }
        return true;
    }

    void recheck(bool deep) {
        QList<BackupEntry> chosen;
        for (const BackupEntry& row : deep ? manifest_.stalest(INT_MAX) : manifest_.stalest(20))
            if (!touched_.contains(row.path) && !neverTravels(row.path, false)) chosen << row;
        int64_t total = 0;
        for (const BackupEntry& row : chosen) total += row.size;
        startPhase(static_cast<size_t>(chosen.size()), total);
        std::mutex progressLock;
        std::vector<char> intact = intactCopies(folderFd_, chosen, [&](int64_t bytes) {
            std::lock_guard lock(progressLock);
            advance(bytes);
        });
        std::vector<QByteArray> damaged;
        for (qsizetype i = 0; i < chosen.size(); ++i) {
            const QByteArray& path = chosen[i].path;
            if (intact[static_cast<size_t>(i)]) {
                BackupEntry& row = manifest_.rows()[path];
                row.verified = unsettled_.contains(path) ? std::min(now(), row.modified) : now();
                ++result_.rechecked;
            } else if (DriveTree::File onDrive; DriveTree::stat(rootFd_, path, onDrive)) {
                damaged.push_back(path);
            } else {
                result_.failures << shown(path) + QStringLiteral(" (no longer in the folder, and not on the drive)");
                manifest_.recordLost(path);
                manifest_.rows().erase(path);
            }
        }
        forget(damaged);
        for (const QByteArray& path : damaged)
            if (copyFromDrive(path)) ++result_.repaired;
    }

    // Copies first, then the rows naming them.
    void save() {
        if (unflushed_) DiskFlush::fileSystemOf(folderFd_);
        unflushed_ = false;
        manifest_.save();
        sinceSave_.restart();
    }

private:
    // Times are kept in whole seconds, so a file rewritten at the same size within the second it
    // was last copied or checked in looks unchanged by size and time alone. Such a row is judged
    // by the file's content instead, until a check in a later second has seen it.
    static bool racy(const BackupEntry& row, const DriveTree::File& f) {
        return row.modified == wholeSeconds(f.mtime) && row.verified <= row.modified;
    }

    // Whether the file still holds what the row says. Read whole in a later second than its
    // last change, the row is settled and size and time suffice again; read within that second,
    // this run's re-check of its copy must not mark it settled either.
    bool settledByContent(BackupEntry& row, const QByteArray& rel) {
        int64_t readFrom = now();
        int fd = DriveTree::openFile(rootFd_, rel);
        if (fd < 0) return false;  // copied, or reported, by the usual path
        std::optional<QString> sha = FileHash::ofDescriptor(fd);
        ::close(fd);
        if (!sha || *sha != row.sha256) return false;
        if (readFrom > row.modified) row.verified = readFrom;
        else unsettled_.insert(rel);
        return true;
    }

    // The backup folder's sub-folder that holds rel, made when missing; files come in folder
    // order, so the last one is kept open.
    int parentOf(const QByteArray& rel, QByteArray& leaf) {
        QByteArray dir = rel.left(std::max<qsizetype>(rel.lastIndexOf('/'), 0));
        if (parentFd_ >= 0 && dir == parentDir_) {
            leaf = DriveTree::leafOf(rel);
            return parentFd_;
        }
        if (parentFd_ >= 0) ::close(parentFd_);
        parentFd_ = DriveTree::openParentMaking(folderFd_, rel, leaf);
        parentDir_ = dir;
        return parentFd_;
    }

    // Copies rel and records its row; none (with a failure line) when it could not be done.
    std::optional<VerifiedCopy::Copied> copyFromDrive(const QByteArray& rel) {
        int fd = DriveTree::openFile(rootFd_, rel);
        if (fd < 0) {
            if (errno != ENOENT) result_.failures << couldNotRead(rel);
            return std::nullopt;  // gone since it was listed: nothing to copy
        }
        struct stat st {};
        ::fstat(fd, &st);
        VerifiedCopy::Request request{fd, -1, {}, st.st_mtim, std::nullopt, false};
        request.dirFd = parentOf(rel, request.leaf);
        VerifiedCopy::Copied c;
        VerifiedCopy::Outcome outcome =
            request.dirFd < 0 ? VerifiedCopy::Outcome::Failed : VerifiedCopy::copy(request, c);
        ::close(fd);
        if (outcome == VerifiedCopy::Outcome::Verified) {
            manifest_.rows()[rel] = {rel, c.sha256, c.bytes, wholeSeconds(st.st_mtim), now()};
            unflushed_ = true;
        } else {
            result_.failures << copyFailure(rel, outcome);
            if (auto old = forgotten_.find(rel); old != forgotten_.end())
                manifest_.rows()[rel] = old->second;  // the old copy is still in place, untouched
        }
        forgotten_.erase(rel);
        if (outcome != VerifiedCopy::Outcome::Verified) return std::nullopt;
        return c;
    }

    // Rows whose copies are about to be replaced leave the saved manifest first, so that a run
    // killed midway never leaves a row beside a copy it does not describe.
    void forget(const std::vector<QByteArray>& paths) {
        if (paths.empty()) return;
        for (const QByteArray& p : paths) {
            auto row = manifest_.rows().find(p);
            forgotten_.insert(*row);
            manifest_.rows().erase(row);
        }
        save();
    }

    void startPhase(size_t files, int64_t bytes) {
        progress_ = {0, static_cast<int>(files), 0, bytes};
        if (options_.progress && files > 0) options_.progress(progress_);
    }
    void advance(int64_t bytes) {
        ++progress_.filesDone;
        progress_.bytesDone += bytes;
        if (options_.progress) options_.progress(progress_);
    }

    int folderFd_;
    int rootFd_;
    const Backup::RunOptions& options_;
    BackupResult& result_;
    BackupManifest& manifest_;
    QSet<QByteArray> touched_;
    QSet<QByteArray> unsettled_;  // judged by content within the second of their last change
    std::map<QByteArray, BackupEntry> forgotten_;
    bool unflushed_ = false;
    QElapsedTimer sinceSave_;  // a long run saves what it has every few seconds
    BackupProgress progress_;
    QByteArray parentDir_;
    int parentFd_ = -1;
};

BackupResult failed(const QString& why) {
    BackupResult r;
    r.error = why;
    return r;
}

}  // namespace

namespace Backup {

std::function<void(const BackupProgress&)> throttled(std::chrono::milliseconds interval,
                                                     std::function<void(const BackupProgress&)> report) {
    auto last = std::make_shared<std::chrono::steady_clock::time_point>();
    return [interval, last, report = std::move(report)](const BackupProgress& p) {
        auto now = std::chrono::steady_clock::now();
        if (p.filesDone < p.filesTotal && now - *last < interval) return;
        *last = now;
        report(p);
    };
}

QString folderName(const QString& volumeName) {
    QString name = volumeName.trimmed();
    if (name.isEmpty()) name = QStringLiteral("Writing stick");
    return name.replace(QLatin1Char('/'), QLatin1Char('-'));
}

QString driveIdentity(const QmVolume& volume) {
    char id[33];
    if (qm_key_drive_id_hex(QFile::encodeName(volume.path).constData(), id) == QM_OK)
        return QStringLiteral("key ") + QString::fromLatin1(id);
    QString uuid = Volumes::fileSystemId(volume.path);
    return uuid.isEmpty() ? QString() : QStringLiteral("fs ") + uuid;
}

QString folderFor(const QString& destination, const QmVolume& volume) {
    QDir parent(destination + QStringLiteral("/Quillmate"));
    QString base = folderName(volume.name);
    // The drive's name, then the same name with " 2", " 3"... as they exist, in that order.
    std::map<int, QString> named;
    QRegularExpression numbered(QStringLiteral("^") + QRegularExpression::escape(base) +
                                QStringLiteral(" ([0-9]{1,6})$"));
    for (const QString& entry : parent.entryList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::Hidden)) {
        if (entry == base) named[1] = entry;
        else if (QRegularExpressionMatch m = numbered.match(entry); m.hasMatch() && m.captured(1).toInt() >= 2)
            named[m.captured(1).toInt()] = entry;
    }
    QString identity = driveIdentity(volume);
    std::optional<QString> unclaimed;
    for (const auto& [n, entry] : named) {
        QString owner = BackupManifest::identityIn(parent.filePath(entry));
        if (!identity.isEmpty() && owner == identity) return parent.filePath(entry);
        if (owner.isEmpty() && !unclaimed) unclaimed = parent.filePath(entry);
    }
    if (unclaimed) return *unclaimed;
    int n = 1;
    while (named.count(n)) ++n;
    return parent.filePath(n == 1 ? base : base + QStringLiteral(" %1").arg(n));
}

std::optional<QString> destinationProblem(const QString& destination) {
    if (destination.isEmpty()) return QStringLiteral("no folder chosen");
    if (QFileInfo(destination).isDir()) return std::nullopt;
    if (QFileInfo::exists(destination)) return QStringLiteral("%1 is not a folder").arg(destination);
    return QStringLiteral("the folder %1 is not there. Is its disk plugged in?").arg(destination);
}

std::optional<QString> hashFile(const QString& path) {
    int fd = openRegular(path);
    if (fd < 0) return std::nullopt;
    std::optional<QString> sha = FileHash::ofDescriptor(fd);
    ::close(fd);
    return sha;
}

std::optional<QString> copyVerified(const QString& src, const QString& dst, const QDateTime& mtime,
                                    BackupResult& result) {
    QByteArray srcBytes = QFile::encodeName(src);
    int fd = openRegular(src);
    if (fd < 0) {
        result.failures << couldNotRead(srcBytes);
        return std::nullopt;
    }
    qint64 ms = mtime.toMSecsSinceEpoch();
    const timespec mtimeSpec{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1'000'000};
    VerifiedCopy::Request request{fd, -1, QFile::encodeName(QFileInfo(dst).fileName()), mtimeSpec, std::nullopt, false};
    if (request.mtime.tv_nsec < 0) {
        request.mtime.tv_sec -= 1;
        request.mtime.tv_nsec += 1'000'000'000;
    }
    VerifiedCopy::Copied c;
    VerifiedCopy::Outcome outcome = VerifiedCopy::Outcome::Failed;
    if (QDir().mkpath(QFileInfo(dst).path())) request.dirFd = DriveTree::openRoot(QFileInfo(dst).path());
    if (request.dirFd >= 0) {
        outcome = VerifiedCopy::copy(request, c);
        ::close(request.dirFd);
    }
    ::close(fd);
    if (outcome == VerifiedCopy::Outcome::Verified) return c.sha256;
    result.failures << copyFailure(srcBytes, outcome);
    return std::nullopt;
}

namespace {

// Takes the drive's folder and its lock, and records the drive in a folder that names none yet.
// Another drive of the same name may have claimed the folder between choosing and locking it;
// then the choice is made again.
std::optional<BackupManifest> claimFolder(const QString& destination, const QmVolume& volume, const RunOptions& options,
                                          std::unique_ptr<BackupLock>& lock, BackupResult& result) {
    QString identity = driveIdentity(volume);
    for (int tries = 0; tries < 3; ++tries) {
        QString folder = folderFor(destination, volume);
        if (std::optional<QString> why = createFolder(destination, folder)) {
            result.error = *why;
            return std::nullopt;
        }
        lock = std::make_unique<BackupLock>(folder, options.waitForOtherRuns);
        if (!lock->held()) {
            result.skipped = true;
            return std::nullopt;
        }
        BackupManifest manifest(folder);
        if (!manifest.identity().isEmpty() && manifest.identity() != identity) continue;
        result.folder = folder;
        if (manifest.identity().isEmpty() && !identity.isEmpty()) {
            manifest.setIdentity(identity);
            manifest.save();
        }
        return manifest;
    }
    result.error = QStringLiteral("another drive of the same name is using the backup folder; try again");
    return std::nullopt;
}

}  // namespace

BackupResult run(const QmVolume& volume, const QString& destination, bool deepVerify, const RunOptions& options) {
    if (destination.isEmpty()) return failed(QStringLiteral("no folder chosen"));
    if (std::optional<QString> overlap = overlapError(volume.path, destination)) return failed(*overlap);
    BackupResult result;
    std::unique_ptr<BackupLock> lock;
    std::optional<BackupManifest> manifest = claimFolder(destination, volume, options, lock, result);
    if (!manifest) return result;
    int rootFd = DriveTree::openRoot(volume.path);
    int folderFd = DriveTree::openRoot(result.folder);
    bool listed = false;
    if (rootFd >= 0 && folderFd >= 0) {
        Run run(folderFd, rootFd, *manifest, options, result);
        listed = run.copyChanged();
        if (listed) {
            run.recheck(deepVerify);
            run.save();
        }
    }
    if (rootFd >= 0) ::close(rootFd);
    if (folderFd >= 0) ::close(folderFd);
    if (!listed) {
        BackupResult failure = failed(QStringLiteral("cannot read the drive"));
        failure.folder = result.folder;
        return failure;
    }
    result.cloudWarning = CloudSync::check(result.folder);
    return result;
}

}  // namespace Backup

QString BackupResult::human(int64_t bytes) {
    if (bytes <= 1023) return QString::number(bytes) + QStringLiteral(" bytes");
    if (bytes < 1048576) return QString::asprintf("%.1f KB", static_cast<double>(bytes) / 1024.0);
    return QString::asprintf("%.1f MB", static_cast<double>(bytes) / 1048576.0);
}

QString BackupResult::summary() const {
    if (error) return QStringLiteral("Backup failed: ") + *error;
    QString text;
    if (copied > 0)
        text = QStringLiteral("Copied %1 file%2 (%3), each one verified.")
                   .arg(copied)
                   .arg(copied == 1 ? "" : "s", human(bytes));
    else
        text = QStringLiteral("Already up to date (%1 file%2 checked).").arg(unchanged).arg(unchanged == 1 ? "" : "s");
    if (repaired >= 1)
        text +=
            QStringLiteral("  Put back %1 damaged or missing cop%2.").arg(repaired).arg(repaired == 1 ? "y" : "ies");
    else if (rechecked >= 1)
        text += QStringLiteral("  Re-checked %1, all intact.").arg(rechecked);
    return text;
}
