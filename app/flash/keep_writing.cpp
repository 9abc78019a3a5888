#include "keep_writing.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStandardPaths>
#include <cerrno>

#include "backup_restore.h"
#include "drive_tree.h"
#include "file_hash.h"
#include "file_writes.h"
#include "regular_file.h"
#include "verified_copy.h"

namespace KeepWriting {

namespace {

const QString kIndexName = QStringLiteral("kept.json");
const QString kFilesFolder = QStringLiteral("files");
// The deck's own files at the top of the drive; what the backup leaves behind besides .qm/.
const QStringList kTopFiles = {QStringLiteral("stats.db"), QStringLiteral("stats.bak"), QStringLiteral("settings.cfg"),
                               QStringLiteral("autosave.md")};
constexpr int kListedFailures = 5;  // a longer list names the first few and counts the rest

// Closes a descriptor when it goes out of scope.
QString listed(const QStringList& lines) {
    QStringList shown = lines.mid(0, kListedFailures);
    if (lines.size() > kListedFailures) shown << QStringLiteral("and %1 more").arg(lines.size() - kListedFailures);
    return shown.join(QStringLiteral("; "));
}

bool isRegular(const QString& path) {
    struct stat st {};
    return ::lstat(QFile::encodeName(path).constData(), &st) == 0 && S_ISREG(st.st_mode);
}

bool isPlainFolder(const QString& path) {
    struct stat st {};
    return ::lstat(QFile::encodeName(path).constData(), &st) == 0 && S_ISDIR(st.st_mode);
}

// A relative path that stays inside the folder it is joined to.
bool staysInside(const QString& rel) {
    return !rel.isEmpty() && !rel.startsWith(u'/') && QDir::cleanPath(rel) == rel && rel != QLatin1String("..") &&
           !rel.startsWith(QLatin1String("../"));
}

// Copies what `from` holds to leaf in the folder dirFd, privately, never over an existing file,
// checked from the disk (against `expected` when given).
VerifiedCopy::Outcome copyPrivately(int from, int dirFd, const QByteArray& leaf, std::optional<QString> expected,
                                    VerifiedCopy::Copied& copied) {
    VerifiedCopy::Request request{from, dirFd, leaf, {0, UTIME_OMIT}, std::move(expected), true, 0600};
    return VerifiedCopy::copy(request, copied);
}

// Makes folder (and its parents) readable by this user only.
bool makePrivateFolder(const QString& folder) {
    if (!QDir().mkpath(folder)) return false;
    return ::chmod(QFile::encodeName(folder).constData(), 0700) == 0;
}

// One of the drive's own files into the set's files/ folder.
std::optional<KeptFile> keepOne(int driveFd, const QString& rel, const QString& filesFolder) {
    QByteArray relBytes = QFile::encodeName(rel);
    UniqueFd from(DriveTree::openFile(driveFd, relBytes));
    if (!from) return std::nullopt;
    QString target = filesFolder + u'/' + rel;
    if (!makePrivateFolder(QFileInfo(target).absolutePath())) return std::nullopt;
    UniqueFd folder(DriveTree::openRoot(QFileInfo(target).absolutePath()));
    VerifiedCopy::Copied copied;
    if (!folder || copyPrivately(from.get(), folder.get(), QFile::encodeName(QFileInfo(target).fileName()),
                                 std::nullopt, copied) != VerifiedCopy::Outcome::Verified)
        return std::nullopt;
    return KeptFile{rel, copied.sha256, copied.bytes};
}

QByteArray indexOf(const KeptSet& set) {
    QJsonArray files;
    for (const KeptFile& f : set.files)
        files.append(QJsonObject{{"path", f.rel}, {"sha256", f.sha256}, {"size", f.size}});
    QJsonObject o{{"disk", set.disk},
                  {"stick", set.stick},
                  {"volume", set.volumeName},
                  {"backupFolder", set.backupFolder},
                  {"documents", set.documents},
                  {"made", set.made.toUTC().toString(Qt::ISODate)},
                  {"files", files}};
    return QJsonDocument(o).toJson();
}

std::optional<KeptSet> readIndex(const QString& folder) {
    QFile f(folder + u'/' + kIndexName);
    if (!f.open(QIODevice::ReadOnly)) return std::nullopt;
    QJsonObject o = QJsonDocument::fromJson(f.readAll()).object();
    KeptSet set;
    set.folder = folder;
    set.disk = o.value("disk").toString();
    set.stick = o.value("stick").toString();
    set.volumeName = o.value("volume").toString();
    set.backupFolder = o.value("backupFolder").toString();
    set.documents = o.value("documents").toInt();
    set.made = QDateTime::fromString(o.value("made").toString(), Qt::ISODate);
    for (const QJsonValue& v : o.value("files").toArray()) {
        QJsonObject file = v.toObject();
        KeptFile k{file.value("path").toString(), file.value("sha256").toString(), file.value("size").toInteger(-1)};
        if (!staysInside(k.rel) || k.sha256.size() != 64 || k.size < 0) return std::nullopt;
        set.files.append(k);
    }
    if (set.disk.isEmpty() || set.backupFolder.isEmpty()) return std::nullopt;
    return set;
}

// A new, empty folder for a set, named by when it was made.
std::optional<QString> newSetFolder(const QString& keptRoot, const QDateTime& made) {
    if (!makePrivateFolder(keptRoot)) return std::nullopt;
    QString base = keptRoot + u'/' + made.toUTC().toString(QStringLiteral("yyyyMMdd-HHmmss-zzz"));
    for (int n = 1; n < 100; ++n) {
        QString folder = n == 1 ? base : base + QStringLiteral("-%1").arg(n);
        if (::mkdir(QFile::encodeName(folder).constData(), 0700) == 0) return folder;
        if (errno != EEXIST) return std::nullopt;
    }
    return std::nullopt;
}

QString backupProblem(const BackupResult& r) {
    if (r.error) return r.summary();
    if (r.skipped) return QStringLiteral("Another backup of this drive was under way.");
    return (r.failures.size() == 1 ? QStringLiteral("One file could not be backed up: ")
                                   : QStringLiteral("%1 files could not be backed up: ").arg(r.failures.size())) +
           listed(r.failures);
}

// Puts one kept file on the drive; a line for the user when that did not work.
std::optional<QString> putOne(const KeptSet& set, const KeptFile& file, int driveFd) {
    QByteArray kept = QFile::encodeName(set.folder + u'/' + kFilesFolder + u'/' + file.rel);
    UniqueFd from(RegularFile::openNoFollow(AT_FDCWD, kept.constData()));
    if (!from || FileHash::ofDescriptor(from.get()) != file.sha256)
        return file.rel + QStringLiteral(" (the copy kept on this computer is missing or damaged)");
    QByteArray rel = QFile::encodeName(file.rel), leaf;
    if (rel.startsWith(".qm/")) ::mkdirat(driveFd, ".qm", 0700);  // as the deck makes it; may be there already
    UniqueFd parent(DriveTree::openParentMaking(driveFd, rel, leaf));
    if (!parent) return file.rel + QStringLiteral(" (its folder could not be made on the stick)");
    struct stat st {};
    if (::fstatat(parent.get(), leaf.constData(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
        // A stick that already has its own (the deck started on it first) keeps it: replacing a
        // key or statistics that belong together with others would break both.
        UniqueFd there(RegularFile::openNoFollow(parent.get(), leaf.constData()));
        if (there && FileHash::ofDescriptor(there.get()) == file.sha256) return std::nullopt;
        return file.rel + QStringLiteral(" (the stick already holds a different one; it was left as it is)");
    }
    VerifiedCopy::Copied copied;
    switch (copyPrivately(from.get(), parent.get(), leaf, file.sha256, copied)) {
        case VerifiedCopy::Outcome::Verified: ::fsync(parent.get()); return std::nullopt;
        case VerifiedCopy::Outcome::SourceUnreadable:
        case VerifiedCopy::Outcome::SourceDamaged:
            return file.rel + QStringLiteral(" (the copy kept on this computer is missing or damaged)");
        case VerifiedCopy::Outcome::Taken:
            return file.rel + QStringLiteral(" (the stick already holds a different one; it was left as it is)");
        case VerifiedCopy::Outcome::DiskFull: return file.rel + QStringLiteral(" (the stick is full)");
        case VerifiedCopy::Outcome::Failed: break;
    }
    return file.rel + QStringLiteral(" (what arrived on the stick did not match what was kept)");
}

}  // namespace

QString defaultRoot() {
    return QStandardPaths::writableLocation(QStandardPaths::AppDataLocation) + QStringLiteral("/kept");
}

int documentCount(const QString& driveRoot) {
    int n = 0;
    for (const QFileInfo& f : QDir(driveRoot).entryInfoList(QDir::Files | QDir::NoDotAndDotDot))
        if (!f.isSymLink() && !kTopFiles.contains(f.fileName())) ++n;
    return n;
}

QStringList ownFiles(const QString& driveRoot) {
    QStringList out;
    QDir root(driveRoot);
    for (const QString& name : kTopFiles)
        if (isRegular(root.filePath(name))) out << name;
    if (!isPlainFolder(root.filePath(QStringLiteral(".qm")))) return out;
    int rootFd = DriveTree::openRoot(driveRoot);
    if (rootFd < 0) return out;
    DriveTree::Listing listing = DriveTree::list(rootFd, [](const QByteArray& rel, bool) {
        return rel != ".qm" && !rel.startsWith(".qm/");
    });
    ::close(rootFd);
    for (const DriveTree::File& f : listing.files) out << QFile::decodeName(f.rel);
    for (const DriveTree::Problem& p : listing.problems) out << QFile::decodeName(p.rel);  // fails to keep, and says so
    return out;
}

Kept keep(const Plan& plan, const QString& keptRoot, const Backup::RunOptions& options) {
    BackupResult backup = Backup::run(plan.volume, plan.destination, false, options);
    if (backup.error || backup.skipped || !backup.failures.isEmpty()) return {std::nullopt, backupProblem(backup)};

    const QString couldNotKeep = QStringLiteral("The drive's key and statistics could not be kept on this computer");
    KeptSet set{QString(), plan.disk, plan.stick, plan.volume.name, backup.folder, plan.documents,
                QDateTime::currentDateTime(), {}};
    std::optional<QString> folder = newSetFolder(keptRoot, set.made);
    if (!folder) return {std::nullopt, couldNotKeep + QStringLiteral(" (") + keptRoot + QStringLiteral(").")};
    set.folder = *folder;
    UniqueFd drive(DriveTree::openRoot(plan.volume.path));
    QStringList missed;
    for (const QString& rel : ownFiles(plan.volume.path)) {
        std::optional<KeptFile> kept =
            drive ? keepOne(drive.get(), rel, set.folder + u'/' + kFilesFolder) : std::nullopt;
        if (kept)
            set.files.append(*kept);
        else
            missed << rel;
    }
    if (!missed.isEmpty() || !FileWrites::replaceDurably(set.folder + u'/' + kIndexName, indexOf(set), 0600)) {
        QDir(set.folder).removeRecursively();
        return {std::nullopt,
                couldNotKeep + (missed.isEmpty() ? QStringLiteral(".") : QStringLiteral(": ") + listed(missed) + u'.')};
    }
    FileWrites::syncFolder(keptRoot);
    return {set, QString()};
}

PutBack putBack(const KeptSet& set, const QString& driveRoot, const Backup::RunOptions& options) {
    UniqueFd drive(DriveTree::openRoot(driveRoot));
    if (!drive) return {false, QStringLiteral("The stick could not be opened at ") + driveRoot + u'.'};
    QStringList failures;
    for (const KeptFile& f : set.files)
        if (std::optional<QString> failure = putOne(set, f, drive.get())) failures << *failure;
    RestoreResult restored = Backup::restore(set.backupFolder, driveRoot, options);
    if (restored.error)
        failures.prepend(restored.summary());
    else
        failures << restored.failures;
    if (!failures.isEmpty())
        return {false,
                (failures.size() == 1 ? QStringLiteral("One thing could not be put back: ")
                                      : QStringLiteral("%1 things could not be put back: ").arg(failures.size())) +
                    listed(failures)};
    QString message = restored.summary() + QStringLiteral("\n\nThe drive's key and statistics are back too.");
    if (!forget(set))
        message += QStringLiteral(" The copies kept on this computer could not all be deleted; they are in ") +
                   set.folder + u'.';
    return {true, message};
}

QList<KeptSet> load(const QString& keptRoot) {
    QList<KeptSet> out;
    QDir root(keptRoot);
    for (const QString& name : root.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name))
        if (std::optional<KeptSet> set = readIndex(root.filePath(name))) out.append(*set);
    return out;
}

bool forget(const KeptSet& set) {
    bool gone = QDir(set.folder).removeRecursively();
    FileWrites::syncFolder(QFileInfo(set.folder).absolutePath());
    return gone;
}

}  // namespace KeepWriting
