// Opening files on a drive without following links, blocking, or reading past a limit.
#include "drive_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace qm::drive_files {

namespace {
bool is_regular(int fd, struct stat* st) { return fstat(fd, st) == 0 && S_ISREG(st->st_mode); }
}  // namespace

int open_regular(int dir_fd, const char* name, size_t limit, size_t* size) {
    int fd = openat(dir_fd, name, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return -1;
    struct stat st;
    if (!is_regular(fd, &st) || st.st_size < 0 || uint64_t(st.st_size) > limit) {
        close(fd);
        return -1;
    }
    *size = size_t(st.st_size);
    return fd;
}

bool read_exact(int fd, uint8_t* buf, size_t size) {
    size_t got = 0;
    while (got < size) {
        ssize_t r = read(fd, buf + got, size - got);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return false;
        got += size_t(r);
    }
    uint8_t extra;
    ssize_t r;
    do r = read(fd, &extra, 1);
    while (r < 0 && errno == EINTR);
    return r == 0;
}

long read_regular(int dir_fd, const char* name, uint8_t* buf, size_t cap) {
    size_t size = 0;
    int fd = open_regular(dir_fd, name, cap, &size);
    if (fd < 0) return -1;
    bool ok = read_exact(fd, buf, size);
    close(fd);
    return ok ? long(size) : -1;
}

int open_folder(int dir_fd, const char* name) {
    return openat(dir_fd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

bool write_all(int fd, const void* data, size_t len) {
    const uint8_t* p = static_cast<const uint8_t*>(data);
    while (len > 0) {
        ssize_t w = write(fd, p, len);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) return false;
        p += w;
        len -= size_t(w);
    }
    return true;
}

int open_regular_for_writing(const char* path, int flags, int mode) {
    int fd = open(path, O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC | flags, mode);
    if (fd < 0) return -1;
    struct stat st;
    if (!is_regular(fd, &st)) {
        close(fd);
        return -1;
    }
    return fd;
}

}  // namespace qm::drive_files
