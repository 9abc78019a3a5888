#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <linux/fs.h>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "target.h"
#include "writer_error.h"

namespace fs = std::filesystem;

namespace {

std::string sysfs_dev_dir(dev_t dev) {
    return "/sys/dev/block/" + std::to_string(major(dev)) + ":" + std::to_string(minor(dev));
}

std::string format_size(uint64_t bytes) {
    std::ostringstream out;
    out << bytes << " bytes (" << (bytes + kMiB / 2) / kMiB << " MiB)";
    return out.str();
}

std::string read_first_line(const std::string& path) {
    std::ifstream f(path);
    std::string line;
    std::getline(f, line);
    return line;
}

dev_t parse_dev(const std::string& maj_min) {
    unsigned maj = 0, min = 0;
    if (std::sscanf(maj_min.c_str(), "%u:%u", &maj, &min) != 2) return 0;
    return makedev(maj, min);
}

std::vector<dev_t> disk_and_partitions(const std::string& disk_name, dev_t disk) {
    std::vector<dev_t> devices{disk};
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator("/sys/class/block/" + disk_name, ec))
        if (fs::exists(entry.path() / "partition"))
            devices.push_back(parse_dev(read_first_line(entry.path() / "dev")));
    return devices;
}

// mountinfo escapes blanks and backslashes in paths as \ooo.
std::string unescape_mount_path(const std::string& s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '\\' && i + 3 < s.size()) {
            out += static_cast<char>(std::stoi(s.substr(i + 1, 3), nullptr, 8));
            i += 3;
        } else {
            out += s[i];
        }
    }
    return out;
}

struct Mount {
    dev_t device;
    std::string mount_point;
};

dev_t device_of_source(const std::string& source) {
    struct stat st{};
    if (source.rfind("/dev/", 0) == 0 && stat(source.c_str(), &st) == 0 && S_ISBLK(st.st_mode)) return st.st_rdev;
    return 0;
}

// Mounts on any of `devices`, by the major:minor in mountinfo or, for file systems that
// report an anonymous device number (btrfs), by the block device named as the source.
std::vector<Mount> mounts_on(const std::vector<dev_t>& devices) {
    std::vector<Mount> found;
    std::ifstream f("/proc/self/mountinfo");
    std::string line;
    while (std::getline(f, line)) {
        std::istringstream in(line);
        std::string id, parent, maj_min, root, mount_point, field;
        in >> id >> parent >> maj_min >> root >> mount_point;
        while (in >> field && field != "-") {}
        std::string fstype, source;
        in >> fstype >> source;
        dev_t by_number = parse_dev(maj_min);
        dev_t by_source = device_of_source(unescape_mount_path(source));
        for (dev_t d : devices)
            if (d == by_number || d == by_source) found.push_back({d, unescape_mount_path(mount_point)});
    }
    return found;
}

// A swap partition by its device number, a swap file by the device holding it.
dev_t device_of_swap(const std::string& name) {
    struct stat st{};
    if (stat(name.c_str(), &st) != 0) return 0;
    if (S_ISBLK(st.st_mode)) return st.st_rdev;
    return S_ISREG(st.st_mode) ? st.st_dev : 0;
}

bool is_system_mount_point(const std::string& mount_point) {
    for (const char* p : {"/", "/boot", "/boot/efi", "/usr", "/var", "/home"})
        if (mount_point == p) return true;
    return false;
}

void refuse_system_disk(const Target& t) {
    for (const Mount& m : mounts_on(t.devices))
        if (is_system_mount_point(m.mount_point))
            throw WriterError(t.path + " holds the running system (" + m.mount_point +
                              " is mounted from it); choose another disk");
    std::ifstream swaps("/proc/swaps");
    std::string line;
    std::getline(swaps, line);  // header
    while (std::getline(swaps, line)) {
        std::string name = unescape_mount_path(line.substr(0, line.find_first_of(" \t")));
        dev_t d = device_of_swap(name);
        for (dev_t mine : t.devices)
            if (d != 0 && d == mine)
                throw WriterError(t.path + " is in use as swap space (" + name + "); choose another disk");
    }
}

std::string describe_open_error(const std::string& path, int err) {
    if (err == EBUSY)
        return path + " is busy: another program is using the disk; close programs that use it "
                      "(file managers, terminals open on it) and try again";
    if (err == EROFS || err == EACCES || err == EPERM)
        return path + " is write-protected or not writable (" + std::strerror(err) +
               "); if it is an SD card, slide the lock switch on its side away from LOCK";
    return describe_io_error(err, "open");
}

void refuse_read_only(const Target& t) {
    int fd = ::open(t.path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) throw WriterError(describe_open_error(t.path, errno));
    int ro = 0;
    bool got = ioctl(fd, BLKROGET, &ro) == 0;
    ::close(fd);
    if (got && ro)
        throw WriterError(t.path + " is write-protected; if it is an SD card, slide the lock switch on "
                          "its side away from LOCK and insert it again");
}

uint64_t block_device_size(const std::string& path) {
    FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    uint64_t size = 0;
    if (!fd || ioctl(fd.get(), BLKGETSIZE64, &size) != 0)
        throw WriterError("cannot read the size of " + path + ": " + std::strerror(errno));
    return size;
}

Target inspect_block_device(const std::string& path, dev_t dev) {
    std::string sysdir = sysfs_dev_dir(dev);
    if (fs::exists(sysdir + "/partition"))
        throw WriterError(path + " is a partition; choose the whole disk it belongs to");
    Target t;
    t.path = path;
    std::error_code ec;
    t.disk_name = fs::canonical(sysdir, ec).filename().string();
    if (ec) throw WriterError(path + " is not known to the system as a disk");
    t.devices = disk_and_partitions(t.disk_name, dev);
    refuse_system_disk(t);  // first: it needs no access to the disk itself
    refuse_read_only(t);
    t.size = block_device_size(path);
    return t;
}

FileDescriptor open_with_flags(const Target& t, int flags) {
    return FileDescriptor(::open(t.path.c_str(), flags | O_CLOEXEC));
}

OpenTarget open_preferring_direct(const Target& t, int flags) {
    OpenTarget open{open_with_flags(t, flags | O_DIRECT), true};
    if (!open.fd && errno == EINVAL) open = {open_with_flags(t, flags), false};
    if (!open.fd) throw WriterError(describe_open_error(t.path, errno));
    return open;
}

}  // namespace

Target inspect_target(const std::string& path, bool allow_regular_file) {
    struct stat st{};
    if (stat(path.c_str(), &st) != 0)
        throw WriterError(path + " does not exist (" + std::strerror(errno) + "); was the disk unplugged?");
    if (S_ISBLK(st.st_mode)) return inspect_block_device(path, st.st_rdev);
    if (S_ISREG(st.st_mode) && allow_regular_file) return Target{path, true, 0, {}, {}};
    if (S_ISREG(st.st_mode)) throw WriterError(path + " is a regular file, not a disk; choose a disk");
    if (S_ISCHR(st.st_mode)) throw WriterError(path + " is a character device, not a disk; choose a disk");
    throw WriterError(path + " is not a disk; choose a disk");
}

void refuse_smaller_than(const Target& t, uint64_t image_bytes) {
    if (!t.regular_file && t.size < image_bytes)
        throw WriterError(t.path + " is too small: the disk holds " + format_size(t.size) +
                          " but the image needs " + format_size(image_bytes) + "; use a larger disk");
}

// Writing would destroy the image while it is being read.
void refuse_image_on_target(const Target& t, int image_fd) {
    struct stat st{};
    if (fstat(image_fd, &st) != 0) return;
    for (dev_t d : t.devices)
        if (!t.regular_file && d == st.st_dev)
            throw WriterError("the image is stored on " + t.path +
                              ", the disk it would be written to; copy the image to another disk first");
}

// A lazy (detached) unmount would leave the file system writing to the disk behind our
// back, so only a full unmount will do. Newest first, so mounts nested inside others go
// before their parents.
void unmount_partitions(const Target& t) {
    if (t.regular_file) return;
    auto mounts = mounts_on(t.devices);
    for (auto m = mounts.rbegin(); m != mounts.rend(); ++m) {
        if (umount2(m->mount_point.c_str(), 0) == 0) continue;
        if (errno == EBUSY)
            throw WriterError("disk busy: " + m->mount_point + " on " + t.path +
                              " cannot be unmounted; close programs using files on it and try again");
        throw WriterError("cannot unmount " + m->mount_point + ": " + std::strerror(errno));
    }
}

OpenTarget open_for_writing(const Target& t) {
    if (t.regular_file) return open_preferring_direct(t, O_WRONLY);
    return open_preferring_direct(t, O_RDWR | O_EXCL);
}

OpenTarget open_for_reading(const Target& t) {
    OpenTarget open = open_preferring_direct(t, O_RDONLY);
    if (!open.direct) {
        // Without O_DIRECT, drop what the page cache holds so the read reaches the medium.
        posix_fadvise(open.fd.get(), 0, 0, POSIX_FADV_DONTNEED);
        if (!t.regular_file) ioctl(open.fd.get(), BLKFLSBUF, 0);
    }
    return open;
}

void clear_direct_io(OpenTarget& open) {
    if (!open.direct) return;
    int flags = fcntl(open.fd.get(), F_GETFL);
    if (flags >= 0 && fcntl(open.fd.get(), F_SETFL, flags & ~O_DIRECT) == 0) open.direct = false;
}

std::string describe_io_error(int err, const char* action) {
    std::string what = std::string("cannot ") + action + " the disk (" + std::strerror(err) + ")";
    if (err == ENODEV || err == EIO || err == ENXIO)
        return what + ": the disk was unplugged or stopped responding; plug it in again and write "
                      "the image again (the disk is left without a partition table until then)";
    if (err == ENOSPC) return what + ": the disk is smaller than the image; use a larger disk";
    if (err == EROFS || err == EPERM || err == EACCES)
        return what + ": the disk is write-protected; if it is an SD card, slide the lock switch on "
                      "its side away from LOCK";
    return what + "; try another USB port or another disk";
}
