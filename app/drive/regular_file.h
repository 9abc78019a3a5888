// Opening a file that someone else may have swapped: a drive's files, a backup folder, the
// copies kept on this computer. A link put in place of the file would hand us whatever it
// points at, and a FIFO would block the open forever, so both are refused.
#pragma once
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

// Owns one file descriptor and closes it when it goes.
class UniqueFd {
public:
    explicit UniqueFd(int fd = -1) : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) {
            reset();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }
    ~UniqueFd() { reset(); }
    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    explicit operator bool() const { return valid(); }
    int release() { return std::exchange(fd_, -1); }
    void reset() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

private:
    int fd_;
};

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
