#include "verified_copy.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>
#include <vector>

#include "disk_flush.h"
#include "file_hash.h"
#include "file_writes.h"

namespace VerifiedCopy {
namespace {

constexpr size_t kChunk = 1 << 20;
constexpr size_t kHashRead = 65536;

bool noRoom(int error) { return error == ENOSPC || error == EDQUOT; }

bool roomFor(int dirFd, int64_t bytes) {
    struct statvfs vfs {};
    if (::fstatvfs(dirFd, &vfs) != 0) return true;  // unknown: the writes will tell
    return static_cast<int64_t>(vfs.f_bavail) * static_cast<int64_t>(vfs.f_frsize) >= bytes;
}

bool renameInto(int dirFd, const char* from, const QByteArray& to, bool noReplace) {
    if (noReplace) {
        if (std::optional<bool> renamed = DiskFlush::renameNoReplace(dirFd, from, to.constData())) return *renamed;
        // No way to do it in one step: look, then rename; the window is this process's own.
        struct stat st {};
        if (::fstatat(dirFd, to.constData(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
            errno = EEXIST;
            return false;
        }
    }
    return ::renameat(dirFd, from, dirFd, to.constData()) == 0;
}

Outcome attempt(const Request& r, std::vector<char>& buf, Copied& out) {
    struct stat src {};
    if (::fstat(r.srcFd, &src) != 0) return Outcome::SourceUnreadable;
    if (!roomFor(r.dirFd, src.st_size)) return Outcome::DiskFull;
    // A partial file left by a killed copy is replaced, so the copy is always made with r.mode.
    ::unlinkat(r.dirFd, kPartialName, 0);
    int fd = ::openat(r.dirFd, kPartialName, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, r.mode);
    if (fd < 0) return noRoom(errno) ? Outcome::DiskFull : Outcome::Failed;
    Sha256 sent;
    off_t at = 0;
    Outcome outcome = Outcome::Verified;
    for (;;) {
        ssize_t n = FileHash::preadFully(r.srcFd, buf.data(), buf.size(), at);
        if (n < 0) outcome = Outcome::SourceUnreadable;
        if (n <= 0) break;
        sent.add(buf.data(), static_cast<size_t>(n));
        if (!FileWrites::writeAll(fd, buf.data(), static_cast<size_t>(n))) {
            outcome = noRoom(errno) ? Outcome::DiskFull : Outcome::Failed;
            break;
        }
        at += n;
    }
    if (outcome == Outcome::Verified) {
        out = {sent.hex(), static_cast<int64_t>(at)};
        if (r.expected && *r.expected != out.sha256) outcome = Outcome::SourceDamaged;
    }
    if (outcome == Outcome::Verified) {
        timespec times[2] = {{0, UTIME_OMIT}, r.mtime};
        ::futimens(fd, times);
        // On the disk, not in the cache, so its pages are clean and can be dropped before the
        // read-back; a full or failing disk reports it here at the latest. The data alone: names
        // and sizes reach the disk with the one flush of the whole file system that comes before
        // the manifest names the copies, far cheaper than a journal commit per file.
        if (!DiskFlush::dataOf(fd)) outcome = noRoom(errno) ? Outcome::DiskFull : Outcome::Failed;
    }
    if (outcome == Outcome::Verified) {
        std::optional<QString> arrived = hashFromDisk(fd);
        if (!arrived || *arrived != out.sha256) outcome = Outcome::Failed;
    }
    bool closed = ::close(fd) == 0;  // a network file system may report a lost write only here
    if (outcome == Outcome::Verified && closed) {
        if (renameInto(r.dirFd, kPartialName, r.leaf, r.noReplace)) return Outcome::Verified;
        outcome = errno == EEXIST ? Outcome::Taken : Outcome::Failed;
    }
    ::unlinkat(r.dirFd, kPartialName, 0);
    return outcome == Outcome::Verified ? Outcome::Failed : outcome;
}

}  // namespace

Outcome copy(const Request& request, Copied& out) {
    std::vector<char> buf(kChunk);
    Outcome outcome = attempt(request, buf, out);
    if (outcome != Outcome::Failed) return outcome;
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    return attempt(request, buf, out);
}

std::optional<QString> hashFromDisk(int fd) {
#ifdef POSIX_FADV_DONTNEED
    // Drops clean pages only; a copy just made was flushed before this.
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
#endif
    return FileHash::ofDescriptor(fd, kHashRead);
}

}  // namespace VerifiedCopy
