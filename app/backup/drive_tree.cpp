#include "drive_tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QFile>
#include <cerrno>
#include <cstring>
#include <set>
#include <utility>

#include "regular_file.h"

namespace DriveTree {
namespace {

bool isPlainComponent(const QByteArray& part) { return !part.isEmpty() && part != "." && part != ".."; }

// Closes fd keeping errno, so callers can still tell a vanished file from an unreadable one.
void closeKeepingErrno(int fd) {
    int saved = errno;
    ::close(fd);
    errno = saved;
}

// Opens each folder of rel in turn below rootFd, never through a link, making missing ones when
// `make` is set; the last component is left for the caller. Returns the folder's descriptor
// (rootFd itself duplicated for a top-level name), or -1.
int openParent(int rootFd, const QByteArray& rel, QByteArray& last, bool make) {
    const QList<QByteArray> parts = rel.split('/');
    int fd = ::dup(rootFd);
    for (qsizetype i = 0; fd >= 0 && i + 1 < parts.size(); ++i) {
        if (!isPlainComponent(parts[i])) {
            ::close(fd);
            errno = ENOENT;
            return -1;
        }
        if (make && ::mkdirat(fd, parts[i].constData(), 0755) != 0 && errno != EEXIST) {
            closeKeepingErrno(fd);
            return -1;
        }
        int next = ::openat(fd, parts[i].constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        closeKeepingErrno(fd);
        fd = next;
    }
    last = parts.last();
    if (fd >= 0 && !isPlainComponent(last)) {
        ::close(fd);
        errno = ENOENT;
        return -1;
    }
    return fd;
}

class Walk {
public:
    Walk(const Skip& skip, Listing& out) : skip_(skip), out_(out) {}

    // Lists the folder fd (taken over and closed) at rel, then its sub-folders, depth first.
    void folder(int fd, const QByteArray& rel, int depth) {
        DIR* dir = ::fdopendir(fd);
        if (!dir) {
            ::close(fd);
            out_.problems.push_back({rel, Problem::Unreadable});
            return;
        }
        while (dirent* d = ::readdir(dir)) {
            if (std::strcmp(d->d_name, ".") == 0 || std::strcmp(d->d_name, "..") == 0) continue;
            QByteArray name(d->d_name);
            QByteArray path = rel.isEmpty() ? name : rel + '/' + name;
            struct stat st {};
            if (::fstatat(::dirfd(dir), d->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
                // Gone meanwhile is nothing to report; a damaged entry is.
                if (errno != ENOENT) out_.problems.push_back({path, Problem::Unreadable});
                continue;
            }
            if (S_ISREG(st.st_mode) && !skip_(path, false))
                out_.files.push_back({path, static_cast<int64_t>(st.st_size), st.st_mtim});
            else if (S_ISDIR(st.st_mode) && !skip_(path, true))
                subfolder(::dirfd(dir), name, path, depth + 1);
        }
        ::closedir(dir);
    }

    bool enter(int fd) {
        struct stat st {};
        return ::fstat(fd, &st) == 0 && seen_.insert({st.st_dev, st.st_ino}).second;
    }

private:
    void subfolder(int parentFd, const QByteArray& name, const QByteArray& path, int depth) {
        if (depth > kMaxDepth) {
            out_.problems.push_back({path, Problem::TooDeep});
            return;
        }
        int fd = ::openat(parentFd, name.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0) {
            if (errno != ENOENT) out_.problems.push_back({path, Problem::Unreadable});
            return;
        }
        if (!enter(fd)) {
            ::close(fd);
            out_.problems.push_back({path, Problem::Loop});
            return;
        }
        folder(fd, path, depth);
    }

    const Skip& skip_;
    Listing& out_;
    std::set<std::pair<dev_t, ino_t>> seen_;
};

}  // namespace

Listing list(int rootFd, const Skip& skip) {
    Listing listing;
    int fd = ::openat(rootFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return listing;
    Walk walk(skip, listing);
    walk.enter(fd);
    listing.opened = true;
    walk.folder(fd, QByteArray(), 0);
    return listing;
}

int openRoot(const QString& root) {
    return ::open(QFile::encodeName(root).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

int openFile(int rootFd, const QByteArray& rel) {
    QByteArray last;
    int parent = openParent(rootFd, rel, last, false);
    if (parent < 0) return -1;
    int fd = RegularFile::openNoFollow(parent, last.constData());
    closeKeepingErrno(parent);
    return fd;
}

bool stat(int rootFd, const QByteArray& rel, File& out) {
    QByteArray last;
    int parent = openParent(rootFd, rel, last, false);
    if (parent < 0) return false;
    struct stat st {};
    bool ok = ::fstatat(parent, last.constData(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode);
    ::close(parent);
    if (!ok) return false;
    out = {rel, static_cast<int64_t>(st.st_size), st.st_mtim};
    return true;
}

int openParentMaking(int rootFd, const QByteArray& rel, QByteArray& leaf) {
    return openParent(rootFd, rel, leaf, true);
}

QByteArray leafOf(const QByteArray& rel) {
    qsizetype slash = rel.lastIndexOf('/');
    return slash < 0 ? rel : rel.mid(slash + 1);
}

}  // namespace DriveTree
