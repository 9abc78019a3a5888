#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "json.h"
#include "release_tool.h"

namespace release {

namespace {

std::string why() { return std::strerror(errno); }

void write_all(int fd, const void* data, size_t n, const std::string& path) {
    const char* p = static_cast<const char*>(data);
    while (n > 0) {
        ssize_t w = ::write(fd, p, n);
        if (w < 0 && errno == EINTR) continue;
        if (w < 0) throw Failure("cannot write " + path + ": " + why());
        p += w;
        n -= size_t(w);
    }
}

}  // namespace

std::string base_name(const std::string& path) {
    size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string dir_name(const std::string& path) {
    size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

AtomicFile::AtomicFile(const std::string& final_path) : final_(final_path) {
    temp_ = dir_name(final_path) + "/." + base_name(final_path) + ".XXXXXX";
    fd_ = mkstemp(temp_.data());
    if (fd_ < 0) throw Failure("cannot write into " + dir_name(final_path) + ": " + why());
    mode_t mask = umask(0);
    umask(mask);
    fchmod(fd_, 0666 & ~mask);  // mkstemp's 0600 would keep the service from reading it
}

AtomicFile::~AtomicFile() {
    if (fd_ >= 0) close(fd_);
    if (!committed_) unlink(temp_.c_str());
}

void AtomicFile::write(const void* data, size_t n) { write_all(fd_, data, n, temp_); }

void AtomicFile::commit() {
    if (fsync(fd_) != 0) throw Failure("cannot write " + temp_ + ": " + why());
    int fd = fd_;
    fd_ = -1;
    if (close(fd) != 0) throw Failure("cannot write " + temp_ + ": " + why());
    if (rename(temp_.c_str(), final_.c_str()) != 0)
        throw Failure("cannot rename " + temp_ + " to " + final_ + ": " + why());
    committed_ = true;
}

void write_new_file(const std::string& path, const std::string& data, unsigned mode) {
    // O_EXCL: never replace a file, and never write through a link someone left at path.
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (fd < 0) throw Failure("cannot create " + path + ": " + why());
    try {
        write_all(fd, data.data(), data.size(), path);
        if (fsync(fd) != 0) throw Failure("cannot write " + path + ": " + why());
    } catch (...) {
        close(fd);
        unlink(path.c_str());
        throw;
    }
    close(fd);
}

std::string read_small_file(const std::string& path, size_t limit, const std::string& what) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) throw Failure("cannot read " + what + ": " + why());
    try {
        std::string out = read_small_fd(fd, limit, what);
        close(fd);
        return out;
    } catch (...) {
        close(fd);
        throw;
    }
}

std::string read_small_fd(int fd, size_t limit, const std::string& what) {
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) throw Failure("cannot read " + what + ": not a regular file");
    std::string out;
    char buf[16 * 1024];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) throw Failure("cannot read " + what + ": " + why());
        if (n == 0) return out;
        out.append(buf, size_t(n));
        if (out.size() > limit)
            throw Failure("cannot read " + what + ": larger than " + std::to_string(limit / 1024) + " KiB");
    }
}

std::string hex(const unsigned char* bytes, size_t n) {
    std::string out(2 * n + 1, '\0');
    sodium_bin2hex(out.data(), out.size(), bytes, n);
    out.pop_back();
    return out;
}

bool valid_utf8(const std::string& text) {
    // The service's strict JSON reader refuses invalid UTF-8, and quoting escapes everything else.
    return json::parse(json::quote(text)).has_value();
}

}  // namespace release
