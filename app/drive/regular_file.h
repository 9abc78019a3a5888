// Opening a file that someone else may have swapped: a drive's files, a backup folder, the
// copies kept on this computer. A link put in place of the file would hand us whatever it
// points at, and a FIFO would block the open forever, so both are refused.
#pragma once
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace RegularFile {

// Read-only descriptor of the regular file `name` under the folder dirFd (AT_FDCWD: a path),
// never through a link at the last step and without blocking on a FIFO; reads on it block as
// usual. -1 with errno set otherwise (EINVAL for anything but a regular file).
inline int openNoFollow(int dirFd, const char* name) {
    int fd = ::openat(dirFd, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
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

}  // namespace RegularFile
