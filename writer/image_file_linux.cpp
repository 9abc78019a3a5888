#include "image_file.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "writer_error.h"

namespace {

// pkexec names the user who asked; run any other way, the real user id does.
uid_t invoking_user() {
    const char* text = std::getenv("PKEXEC_UID");
    if (!text) return getuid();
    char* end = nullptr;
    errno = 0;
    unsigned long uid = std::strtoul(text, &end, 10);
    if (errno || end == text || *end || text[0] == '-' || uid > 0xfffffffeul)
        throw WriterError("PKEXEC_UID is not a user id; start the writer from the app");
    return static_cast<uid_t>(uid);
}

// Takes the user's effective ids and groups for as long as it lives; root's come back after.
class UserRights {
public:
    explicit UserRights(uid_t uid) {
        if (geteuid() != 0 || uid == 0) return;
        std::vector<char> buf(16384);
        passwd pw{}, *found = nullptr;
        if (getpwuid_r(uid, &pw, buf.data(), buf.size(), &found) != 0 || !found)
            throw WriterError("the user who asked for this write (uid " + std::to_string(uid) +
                              ") is unknown to this system");
        std::vector<gid_t> groups(64);
        int count = static_cast<int>(groups.size());
        if (getgrouplist(pw.pw_name, pw.pw_gid, groups.data(), &count) < 0) {
            groups.resize(static_cast<size_t>(count));
            getgrouplist(pw.pw_name, pw.pw_gid, groups.data(), &count);
        }
        saved_groups_.resize(static_cast<size_t>(getgroups(0, nullptr)));
        getgroups(static_cast<int>(saved_groups_.size()), saved_groups_.data());
        saved_gid_ = getegid();
        switched_ = true;
        if (setgroups(static_cast<size_t>(count), groups.data()) != 0 || setegid(pw.pw_gid) != 0 || seteuid(uid) != 0) {
            int err = errno;
            restore();
            throw WriterError(std::string("cannot take the rights of the user who asked for this write: ") +
                              std::strerror(err));
        }
    }
    ~UserRights() { restore(); }
    UserRights(const UserRights&) = delete;
    UserRights& operator=(const UserRights&) = delete;

private:
    void restore() {
        if (!switched_) return;
        // Without root's rights back, the disk cannot be written: stop here.
        if (seteuid(0) != 0 || setegid(saved_gid_) != 0 || setgroups(saved_groups_.size(), saved_groups_.data()) != 0)
            std::abort();
        switched_ = false;
    }

    bool switched_ = false;
    gid_t saved_gid_ = 0;
    std::vector<gid_t> saved_groups_;
};

[[noreturn]] void refuse(const std::string& path, int dir, const std::string& name, int err) {
    struct stat st{};
    if (fstatat(dir, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode))
        throw WriterError("the image path " + path + " goes through a link (" + name +
                          "); give the image's own path, without links");
    throw WriterError("cannot open the image " + path + ": " + std::strerror(err));
}

// One folder at a time, following no link, so the file reached is the one the path names.
FileDescriptor open_without_links(const std::string& path) {
    if (path.empty() || path[0] != '/') throw WriterError("the image path " + path + " is not absolute");
    FileDescriptor dir(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
    size_t start = 1;
    for (;;) {
        size_t end = path.find('/', start);
        std::string name = path.substr(start, end == std::string::npos ? std::string::npos : end - start);
        bool last = end == std::string::npos || path.find_first_not_of('/', end) == std::string::npos;
        if (name.empty() && !last) {
            start = end + 1;
            continue;
        }
        int flags = last ? O_RDONLY | O_NONBLOCK | O_NOCTTY : O_PATH | O_DIRECTORY;
        FileDescriptor next(::openat(dir.get(), name.c_str(), flags | O_NOFOLLOW | O_CLOEXEC));
        if (!next) refuse(path, dir.get(), name, errno);
        if (last) return next;
        dir = std::move(next);
        start = end + 1;
    }
}

}  // namespace

FileDescriptor open_image_as_invoking_user(const std::string& path) {
    FileDescriptor fd;
    {
        UserRights rights(invoking_user());
        fd = open_without_links(path);
    }
    struct stat st{};
    if (fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode))
        throw WriterError("the image " + path + " is not a regular file");
    fcntl(fd.get(), F_SETFL, 0);  // O_NONBLOCK only kept a FIFO from stalling the open
    posix_fadvise(fd.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    return fd;
}
