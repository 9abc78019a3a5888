#include "folder_swap.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace {

int exchangePaths(const char* a, const char* b) {
#if defined(RENAME_EXCHANGE)
    return ::renameat2(AT_FDCWD, a, AT_FDCWD, b, RENAME_EXCHANGE);
#else
    return static_cast<int>(::syscall(SYS_renameat2, AT_FDCWD, a, AT_FDCWD, b, 1u << 1));
#endif
}

std::string parentOf(const std::string& path) {
    size_t slash = path.find_last_not_of('/');
    slash = slash == std::string::npos ? std::string::npos : path.rfind('/', slash);
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::optional<std::string> notRealFolder(const std::string& path) {
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0) return path + ": " + std::strerror(errno);
    if (!S_ISDIR(st.st_mode)) return path + ": not a folder";
    return std::nullopt;
}

bool syncPath(const std::string& path, bool wholeFileSystem) {
    int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return false;
    bool ok = (wholeFileSystem ? ::syncfs(fd) : ::fsync(fd)) == 0;
    ::close(fd);
    return ok;
}

std::vector<std::string> namesIn(int folder) {
    std::vector<std::string> names;
    DIR* dir = ::fdopendir(::fcntl(folder, F_DUPFD_CLOEXEC, 0));
    if (!dir) return names;
    while (dirent* d = ::readdir(dir))
        if (std::strcmp(d->d_name, ".") != 0 && std::strcmp(d->d_name, "..") != 0) names.emplace_back(d->d_name);
    ::closedir(dir);
    return names;
}

// An owner's folder without rwx for the owner cannot be listed or emptied; give it back.
void openUp(int folder) {
    struct stat st;
    if (::fstat(folder, &st) == 0 && (st.st_mode & 0700) != 0700) ::fchmod(folder, (st.st_mode & 07777) | 0700);
}

// Names are read in full before anything is removed, so only one descriptor per level stays open.
bool removeContents(int folder) {
    openUp(folder);
    bool ok = true;
    for (const std::string& name : namesIn(folder)) {
        struct stat st;
        if (::fstatat(folder, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
            ok = ok && errno == ENOENT;
            continue;
        }
        if (S_ISDIR(st.st_mode)) {
            int child = ::openat(folder, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            if (child < 0 && errno == EACCES && ::fchmodat(folder, name.c_str(), (st.st_mode & 07777) | 0700, 0) == 0)
                child = ::openat(folder, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            if (child < 0) {
                ok = false;
                continue;
            }
            ok = removeContents(child) && ok;
            ::close(child);
        }
        ok = ::unlinkat(folder, name.c_str(), S_ISDIR(st.st_mode) ? AT_REMOVEDIR : 0) == 0 && ok;
    }
    return ok;
}

}  // namespace

std::optional<std::string> exchangeFolders(const std::string& a, const std::string& b) {
    for (const std::string* path : {&a, &b})
        if (auto why = notRealFolder(*path)) return why;
    if (!syncPath(a, true)) return std::string("cannot flush the file system: ") + std::strerror(errno);
    if (exchangePaths(a.c_str(), b.c_str()) != 0) return std::string(std::strerror(errno));
    // The exchange has happened whatever these say; they only make it survive a power cut sooner.
    syncPath(parentOf(a), false);
    if (parentOf(b) != parentOf(a)) syncPath(parentOf(b), false);
    return std::nullopt;
}

bool removeTree(const std::string& path) {
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0) return errno == ENOENT;
    if (!S_ISDIR(st.st_mode)) return ::unlink(path.c_str()) == 0;
    int folder = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (folder < 0 && errno == EACCES && ::chmod(path.c_str(), (st.st_mode & 07777) | 0700) == 0)
        folder = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (folder < 0) return false;
    bool ok = removeContents(folder);
    ::close(folder);
    return ::rmdir(path.c_str()) == 0 && ok;
}

bool folderWritable(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && ::access(path.c_str(), W_OK | X_OK) == 0;
}
