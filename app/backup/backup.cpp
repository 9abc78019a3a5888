#include "backup.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QSet>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <mutex>
#include <thread>
#include <vector>

#include "backup_lock.h"
#include "backup_manifest.h"
#include "cloud_sync.h"
#include "drive_tree.h"
#include "file_hash.h"
#include "file_writes.h"
#include "qm_core.h"

namespace {

constexpr size_t kHashRead = 65536;
constexpr size_t kCopyChunk = 1 << 20;
const char kPartialName[] = ".quillmate-partial";
constexpr qint64 kCheckpointMs = 5000;

// The drive's own data and what the deck rewrites all the time; never copied.
bool neverTravels(const QString& rel, bool folder) {
    static const QSet<QString> kNames = {"stats.db", "stats.bak", "settings.cfg", "autosave.md", ".DS_Store",
                                         QLatin1String(kPartialName)};
    if (rel == QLatin1String(".qm") || rel.startsWith(QLatin1String(".qm/"))) return true;
    QString name = rel.section(QLatin1Char('/'), -1);
    // The manifest and what travels with it (its lock, its lost log) are the backup's own files.
    return !folder && (kNames.contains(name) || name.startsWith(QLatin1String(BackupManifest::kFileName)));
}

QString couldNotRead(const QString& path) {
    return path.section(QLatin1Char('/'), -1) + QStringLiteral(" (could not read it on the drive)");
}

int64_t wholeSeconds(const timespec& t) {
    return t.tv_sec < 0 && t.tv_nsec > 0 ? t.tv_sec + 1 : t.tv_sec;  // toward zero
}

int64_t now() { return QDateTime::currentSecsSinceEpoch(); }

int openRegular(const QString& path) {
    int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return -1;
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        return -1;
    }
    return fd;
}

enum class Attempt { Verified, SourceUnreadable, Failed };

struct Copied {
    QString sha256;
    int64_t bytes = 0;
};

// One attempt: the source read once from its start into a partial file beside dst, hashed on
// the way; the partial file read back and hashed; renamed over dst only when both agree, so a
// copy in place is always one that was verified.
Attempt copyOnce(int srcFd, const QString& dst, const timespec& mtime, std::vector<char>& buf, Copied& out) {
    QString parent = QFileInfo(dst).path();
    if (!QDir().mkpath(parent)) return Attempt::Failed;
    QByteArray partial = QFile::encodeName(parent + QLatin1Char('/') + QLatin1String(kPartialName));
    int fd = ::open(partial.constData(), O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0) return Attempt::Failed;
    Sha256 sent;
    off_t at = 0;
    Attempt outcome = Attempt::Verified;
    for (;;) {
        ssize_t n = FileHash::preadFully(srcFd, buf.data(), buf.size(), at);
        if (n < 0) outcome = Attempt::SourceUnreadable;
        if (n <= 0) break;
        sent.add(buf.data(), static_cast<size_t>(n));
        if (!FileWrites::writeAll(fd, buf.data(), static_cast<size_t>(n))) {
            outcome = Attempt::Failed;
            break;
        }
        at += n;
    }
    if (outcome == Attempt::Verified) {
        timespec times[2] = {{0, UTIME_OMIT}, mtime};
        ::futimens(fd, times);
        std::optional<QString> arrived = FileHash::ofDescriptor(fd, kHashRead);
        out = {sent.hex(), static_cast<int64_t>(at)};
        if (!arrived || *arrived != out.sha256) outcome = Attempt::Failed;
    }
    bool closed = ::close(fd) == 0;  // a network file system may report a lost write only here
    if (outcome == Attempt::Verified && closed && ::rename(partial.constData(), QFile::encodeName(dst).constData()) == 0)
        return Attempt::Verified;
    ::unlink(partial.constData());
    return outcome == Attempt::SourceUnreadable ? Attempt::SourceUnreadable : Attempt::Failed;
}

std::optional<Copied> copyFromDescriptor(int srcFd, const QString& name, const QString& dst, const timespec& mtime,
                                         BackupResult& result) {
    std::vector<char> buf(kCopyChunk);
    Copied copied;
    Attempt attempt = Attempt::Failed;
    for (int i = 0; i < 2 && attempt == Attempt::Failed; ++i) {
        if (i > 0) std::this_thread::sleep_for(std::chrono::milliseconds(250));
        attempt = copyOnce(srcFd, dst, mtime, buf, copied);
    }
    if (attempt == Attempt::Verified) return copied;
    result.failures << name + (attempt == Attempt::SourceUnreadable ? QStringLiteral(" (could not read it on the drive)")
                                                                  : QStringLiteral(" (what arrived did not match what was sent)"));
    return std::nullopt;
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
    if (isInside(folder, drive)) return QStringLiteral("the chosen folder is on the drive itself; choose a folder on this computer");
    if (isInside(drive, folder)) return QStringLiteral("the drive is inside the chosen folder; choose a folder outside it");
    return std::nullopt;
}

std::optional<QString> createFolder(const QString& folder) {
    std::error_code ec;
    std::filesystem::create_directories(QFile::encodeName(folder).toStdString(), ec);
    if (ec) return QString::fromLocal8Bit(ec.message());
    return std::nullopt;
}

void flushFileSystem(const QString& folder) {
    int fd = ::open(QFile::encodeName(folder).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
#ifdef __linux__
    ::syncfs(fd);
#else
    ::sync();
#endif
    ::close(fd);
}

// Re-reads each chosen copy and tells whether it still matches its row. Copies are independent,
// so they are hashed on all cores.
std::vector<char> intactCopies(const QString& folder, const QList<BackupEntry>& rows,
                               const std::function<void(int64_t)>& checked) {
    std::vector<char> intact(static_cast<size_t>(rows.size()), 0);
    std::atomic<qsizetype> next{0};
    auto work = [&] {
        for (qsizetype i; (i = next++) < rows.size();) {
            const BackupEntry& row = rows[i];
            QString copy = folder + QLatin1Char('/') + row.path;
            int fd = openRegular(copy);
            struct stat st {};
            if (fd >= 0 && ::fstat(fd, &st) == 0 && st.st_size == row.size) {
                std::optional<QString> sha = FileHash::ofDescriptor(fd, kHashRead);
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
    Run(const QString& folder, int rootFd, const Backup::RunOptions& options, BackupResult& result)
        : folder_(folder), rootFd_(rootFd), options_(options), result_(result), manifest_(folder) {
        sinceSave_.start();
    }

    bool copyChanged() {
        DriveTree::Listing listing = DriveTree::list(rootFd_, neverTravels);
        if (!listing.opened) return false;
        for (const QString& rel : listing.unreadable)
            result_.failures << couldNotRead(rel);
        std::vector<DriveTree::File> changed;
        for (DriveTree::File& f : listing.files) {
            if (f.rel.contains(QLatin1Char('\n'))) {  // a manifest row cannot hold it
                result_.failures << couldNotRead(f.rel);
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
        QStringList replaced;
        for (const DriveTree::File& f : changed)
            if (manifest_.rows().count(f.rel)) replaced << f.rel;
        forget(replaced);
        int64_t total = 0;
        for (const DriveTree::File& f : changed) total += f.size;
        startPhase(changed.size(), total);
        for (const DriveTree::File& f : changed) {
            if (std::optional<Copied> c = copyFromDrive(f.rel)) {
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
        std::vector<char> intact = intactCopies(folder_, chosen, [&](int64_t bytes) {
            std::lock_guard lock(progressLock);
            advance(bytes);
        });
        QStringList damaged;
        for (qsizetype i = 0; i < chosen.size(); ++i) {
            const QString& path = chosen[i].path;
            if (intact[static_cast<size_t>(i)]) {
                BackupEntry& row = manifest_.rows()[path];
                row.verified = unsettled_.contains(path) ? std::min(now(), row.modified) : now();
                ++result_.rechecked;
            } else if (DriveTree::File onDrive; DriveTree::stat(rootFd_, path, onDrive)) {
                damaged << path;
            } else {
                result_.failures << path + QStringLiteral(" (no longer in the folder, and not on the drive)");
                manifest_.recordLost(path);
                manifest_.rows().erase(path);
            }
        }
        forget(damaged);
        for (const QString& path : damaged)
            if (copyFromDrive(path)) ++result_.repaired;
    }

    // Copies first, then the rows naming them.
    void save() {
        if (unflushed_) flushFileSystem(folder_);
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
    bool settledByContent(BackupEntry& row, const QString& rel) {
        int64_t readFrom = now();
        int fd = DriveTree::openFile(rootFd_, rel);
        if (fd < 0) return false;  // copied, or reported, by the usual path
        std::optional<QString> sha = FileHash::ofDescriptor(fd, kHashRead);
        ::close(fd);
        if (!sha || *sha != row.sha256) return false;
        if (readFrom > row.modified) row.verified = readFrom;
        else unsettled_.insert(rel);
        return true;
    }

    // Copies rel and records its row; none (with a failure line) when it could not be done.
    std::optional<Copied> copyFromDrive(const QString& rel) {
        QString name = rel.section(QLatin1Char('/'), -1);
        int fd = DriveTree::openFile(rootFd_, rel);
        if (fd < 0) {
            if (errno != ENOENT) result_.failures << couldNotRead(rel);
            return std::nullopt;  // gone since it was listed: nothing to copy
        }
        struct stat st {};
        ::fstat(fd, &st);
        std::optional<Copied> c = copyFromDescriptor(fd, name, folder_ + QLatin1Char('/') + rel, st.st_mtim, result_);
        ::close(fd);
        if (c) {
            manifest_.rows()[rel] = {rel, c->sha256, c->bytes, wholeSeconds(st.st_mtim), now()};
            unflushed_ = true;
        } else if (auto old = forgotten_.find(rel); old != forgotten_.end()) {
            manifest_.rows()[rel] = old->second;  // the old copy is still in place, untouched
        }
        forgotten_.erase(rel);
        return c;
    }

    // Rows whose copies are about to be replaced leave the saved manifest first, so that a run
    // killed midway never leaves a row beside a copy it does not describe.
    void forget(const QStringList& paths) {
        if (paths.isEmpty()) return;
        for (const QString& p : paths) {
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

    QString folder_;
    int rootFd_;
    const Backup::RunOptions& options_;
    BackupResult& result_;
    BackupManifest manifest_;
    QSet<QString> touched_;
    QSet<QString> unsettled_;  // judged by content within the second of their last change
    std::map<QString, BackupEntry> forgotten_;
    bool unflushed_ = false;
    QElapsedTimer sinceSave_;  // a long run saves what it has every few seconds
    BackupProgress progress_;
};

BackupResult failed(const QString& why) {
    BackupResult r;
    r.error = why;
    return r;
}

}  // namespace

namespace Backup {

QString folderName(const QString& volumeName) {
    QString name = volumeName.trimmed();
    if (name.isEmpty()) name = QStringLiteral("Writing stick");
    return name.replace(QLatin1Char('/'), QLatin1Char('-'));
}

QString folderFor(const QString& destination, const QString& volumeName) {
    return destination + QStringLiteral("/Quillmate/") + folderName(volumeName);
}

std::optional<QString> hashFile(const QString& path) {
    int fd = openRegular(path);
    if (fd < 0) return std::nullopt;
    std::optional<QString> sha = FileHash::ofDescriptor(fd, kHashRead);
    ::close(fd);
    return sha;
}

std::optional<QString> copyVerified(const QString& src, const QString& dst, const QDateTime& mtime,
                                    BackupResult& result) {
    QString name = QFileInfo(src).fileName();
    int fd = openRegular(src);
    if (fd < 0) {
        result.failures << couldNotRead(src);
        return std::nullopt;
    }
    qint64 ms = mtime.toMSecsSinceEpoch();
    timespec when{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1'000'000};
    if (when.tv_nsec < 0) {
        when.tv_sec -= 1;
        when.tv_nsec += 1'000'000'000;
    }
    std::optional<Copied> c = copyFromDescriptor(fd, name, dst, when, result);
    ::close(fd);
    return c ? std::optional<QString>(c->sha256) : std::nullopt;
}

BackupResult run(const QmVolume& volume, const QString& destination, bool deepVerify, const RunOptions& options) {
    if (destination.isEmpty()) return failed(QStringLiteral("no folder chosen"));
    if (std::optional<QString> overlap = overlapError(volume.path, destination)) return failed(*overlap);
    QString folder = folderFor(destination, volume.name);
    if (std::optional<QString> why = createFolder(folder)) return failed(*why);

    BackupLock lock(folder, options.waitForOtherRuns);
    if (!lock.held()) {
        BackupResult skipped;
        skipped.skipped = true;
        return skipped;
    }
    int rootFd = DriveTree::openRoot(volume.path);
    if (rootFd < 0) return failed(QStringLiteral("cannot read the drive"));
    BackupResult result;
    Run run(folder, rootFd, options, result);
    bool listed = run.copyChanged();
    if (listed) {
        run.recheck(deepVerify);
        run.save();
    }
    ::close(rootFd);
    if (!listed) return failed(QStringLiteral("cannot read the drive"));
    result.cloudWarning = CloudSync::check(folder);
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
        text += QStringLiteral("  Put back %1 damaged or missing cop%2.").arg(repaired).arg(repaired == 1 ? "y" : "ies");
    else if (rechecked >= 1)
        text += QStringLiteral("  Re-checked %1, all intact.").arg(rechecked);
    return text;
}
