#include "drive_tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QFile>
#include <cerrno>
#include <cstring>

namespace DriveTree {
namespace {

// Opens each folder of rel in turn below rootFd, never through a link; the last component is
// left for the caller. Returns the folder's descriptor (rootFd itself duplicated for a top-level
// name) and the last component, or -1.
int openParent(int rootFd, const QString& rel, QByteArray& last) {
    const QList<QByteArray> parts = QFile::encodeName(rel).split('/');
    int fd = ::dup(rootFd);
    for (qsizetype i = 0; fd >= 0 && i + 1 < parts.size(); ++i) {
        if (parts[i].isEmpty() || parts[i] == "." || parts[i] == "..") {
            ::close(fd);
            errno = ENOENT;
            return -1;
        }
        int next = ::openat(fd, parts[i].constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        int openError = errno;
        ::close(fd);
        errno = openError;
        fd = next;
    }
    last = parts.last();
    if (fd >= 0 && (last.isEmpty() || last == "." || last == "..")) {
        ::close(fd);
        errno = ENOENT;
        return -1;
    }
    return fd;
}

int openFolder(int rootFd, const QString& rel) {
    if (rel.isEmpty()) return ::openat(rootFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    QByteArray last;
    int parent = openParent(rootFd, rel, last);
    if (parent < 0) return -1;
    int fd = ::openat(parent, last.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    ::close(parent);
    return fd;
}

Entry::Kind kindOf(mode_t mode) {
    if (S_ISDIR(mode)) return Entry::Folder;
    if (S_ISREG(mode)) return Entry::Regular;
    return Entry::Other;
}

}  // namespace

int openRoot(const QString& root) {
    return ::open(QFile::encodeName(root).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

int openFile(int rootFd, const QString& rel) {
    QByteArray last;
    int parent = openParent(rootFd, rel, last);
    if (parent < 0) return -1;
    int fd = ::openat(parent, last.constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    int openError = errno;
    ::close(parent);
    errno = openError;  // the caller tells a vanished file from an unreadable one
    if (fd < 0) return -1;
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        errno = EINVAL;
        return -1;
    }
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    return fd;
}

bool stat(int rootFd, const QString& rel, File& out) {
    QByteArray last;
    int parent = openParent(rootFd, rel, last);
    if (parent < 0) return false;
    struct stat st {};
    bool ok = ::fstatat(parent, last.constData(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode);
    ::close(parent);
    if (!ok) return false;
    out = {rel, static_cast<int64_t>(st.st_size), st.st_mtim};
    return true;
}

bool readFolder(int rootFd, const QString& rel, std::vector<Entry>& out) {
    out.clear();
    int fd = openFolder(rootFd, rel);
    if (fd < 0) return false;
    DIR* dir = ::fdopendir(fd);
    if (!dir) {
        ::close(fd);
        return false;
    }
    while (dirent* d = ::readdir(dir)) {
        if (std::strcmp(d->d_name, ".") == 0 || std::strcmp(d->d_name, "..") == 0) continue;
        struct stat st {};
        if (::fstatat(::dirfd(dir), d->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
            // Gone meanwhile is nothing to report; a damaged entry is.
            if (errno != ENOENT) out.push_back({QFile::decodeName(d->d_name), Entry::Unreadable, 0, {}});
            continue;
        }
        out.push_back({QFile::decodeName(d->d_name), kindOf(st.st_mode), static_cast<int64_t>(st.st_size), st.st_mtim});
    }
    ::closedir(dir);
    return true;
}

}  // namespace DriveTree
