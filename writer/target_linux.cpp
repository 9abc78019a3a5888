#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <linux/fs.h>
#include <set>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "disk_policy.h"
#include "target.h"
#include "writer_error.h"

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kById = "/dev/disk/by-id/";
constexpr size_t kMaxDependents = 4096;  // far beyond any real stack of crypt, LVM and RAID

std::string sysfs_dev_dir(dev_t dev) {
    return "/sys/dev/block/" + std::to_string(major(dev)) + ":" + std::to_string(minor(dev));
}

std::string format_size(uint64_t bytes) {
    std::ostringstream out;
    out << bytes << " bytes (" << (bytes + kMiB / 2) / kMiB << " MiB)";
    return out.str();
}

std::string read_file(const std::string& path) {
    std::ifstream f(path);
    std::stringstream all;
    all << f.rdbuf();
    return all.str();
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

// udev's links are "../../sdb"; anything else is not a link to a disk.
std::string node_of_by_id_link(const std::string& link) {
    char buf[PATH_MAX];
    ssize_t n = readlink(link.c_str(), buf, sizeof buf - 1);
    if (n < 0 && (errno == ENOENT || errno == ENOTDIR)) throw WriterError(kDriveChanged);
    if (n < 0 && errno == EINVAL) throw WriterError(link + " is not a link to a disk; choose the disk again");
    if (n < 0) throw WriterError("cannot read " + link + ": " + std::strerror(errno));
    std::string target(buf, static_cast<size_t>(n));
    std::string name = target.rfind("../../", 0) == 0 ? target.substr(6) : "";
    if (!disk_policy::is_safe_device_name(name))
        throw WriterError(link + " does not lead to a disk in /dev; choose the disk again");
    return "/dev/" + name;
}

// "/dev/NAME", or a by-id link that leads to one; empty for any other path.
std::string device_node(const std::string& path, std::string* by_id) {
    if (path.rfind(kById, 0) == 0) {
        if (!disk_policy::is_safe_device_name(path.substr(kById.size())))
            throw WriterError(path + " is not a disk's name in /dev/disk/by-id");
        *by_id = path;
        return node_of_by_id_link(path);
    }
    if (path.rfind("/dev/", 0) == 0 && disk_policy::is_safe_device_name(path.substr(5))) return path;
    return "";
}

std::string describe_open_error(const std::string& path, int err) {
    if (err == ENOENT || err == ENXIO || err == ENODEV)
        return path + " does not exist (" + std::strerror(err) + "); was the disk unplugged?";
    if (err == ELOOP) return path + " is a link, not a disk; choose the disk itself";
    if (err == ENOMEDIUM) return path + " holds no card or medium; insert it and try again";
    if (err == EBUSY)
        return path + " is busy: another program is using the disk; close programs that use it "
                      "(file managers, terminals open on it) and try again";
    if (err == EROFS || err == EACCES || err == EPERM)
        return path + " is write-protected or not writable (" + std::strerror(err) +
               "); if it is an SD card, slide the lock switch on its side away from LOCK";
    return describe_io_error(err, "open");
}

FileDescriptor open_node(const std::string& node, int flags) {
    return FileDescriptor(::open(node.c_str(), flags | O_NOFOLLOW | O_CLOEXEC));
}

// ---- What sits on the disk --------------------------------------------------------------

struct Device {
    std::string name;
    dev_t number;
};

// The disk, its partitions, and whatever is built on any of them (crypt, LVM, RAID).
std::vector<Device> disk_and_dependents(const std::string& disk_name, dev_t disk) {
    std::vector<Device> found{{disk_name, disk}};
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator("/sys/class/block/" + disk_name, ec))
        if (fs::exists(entry.path() / "partition"))
            found.push_back({entry.path().filename(), parse_dev(read_first_line(entry.path() / "dev"))});
    std::set<std::string> seen;
    for (const Device& d : found) seen.insert(d.name);
    for (size_t i = 0; i < found.size() && found.size() < kMaxDependents; ++i)
        for (const auto& holder : fs::directory_iterator("/sys/class/block/" + found[i].name + "/holders", ec)) {
            std::string name = holder.path().filename();
            if (seen.insert(name).second)
                found.push_back({name, parse_dev(read_first_line("/sys/class/block/" + name + "/dev"))});
        }
    return found;
}

dev_t device_of_source(const std::string& source) {
    struct stat st{};
    if (source.rfind("/dev/", 0) == 0 && stat(source.c_str(), &st) == 0 && S_ISBLK(st.st_mode)) return st.st_rdev;
    return 0;
}

bool among(dev_t d, const std::vector<dev_t>& devices) {
    return d != 0 && std::find(devices.begin(), devices.end(), d) != devices.end();
}

// Mount points on any of `devices`, by the major:minor in mountinfo or, for file systems that
// report an anonymous device number (btrfs), by the block device named as the source.
std::vector<std::string> mounts_on(const std::vector<dev_t>& devices) {
    std::vector<std::string> found;
    for (const disk_policy::Mount& m : disk_policy::parse_mountinfo(read_file("/proc/self/mountinfo")))
        if (among(parse_dev(m.major_minor), devices) || among(device_of_source(m.source), devices))
            found.push_back(m.mount_point);
    return found;
}

// A swap partition by its device number, a swap file by the device holding it.
std::string swap_on(const std::vector<dev_t>& devices) {
    for (const std::string& name : disk_policy::parse_swaps(read_file("/proc/swaps"))) {
        struct stat st{};
        if (stat(name.c_str(), &st) != 0) continue;
        if (among(S_ISBLK(st.st_mode) ? st.st_rdev : S_ISREG(st.st_mode) ? st.st_dev : 0, devices)) return name;
    }
    return "";
}

std::string transport_of(const std::string& sysfs_path) {
    if (sysfs_path.find("/usb") != std::string::npos) return "usb";
    if (sysfs_path.find("/mmc_host/") != std::string::npos) return "mmc";
    return "other";
}

std::string first_mount(const std::vector<std::string>& mounts, disk_policy::MountUse use) {
    for (const std::string& m : mounts)
        if (disk_policy::classify_mount(m) == use) return m;
    return "";
}

[[noreturn]] void refuse_foreign_mount(const Target& t, const std::string& mount_point) {
    throw WriterError(t.path + " has a file system mounted at " + mount_point +
                      ", which is not where removable drives are mounted; if this disk is meant to be "
                      "erased, unmount it first, then try again");
}

void refuse_by_policy(const Target& t, const std::string& sysfs_path, TargetKinds kinds) {
    disk_policy::DiskFacts facts;
    facts.name = t.disk_name;
    facts.transport = transport_of(sysfs_path);
    facts.removable = read_first_line(sysfs_path + "/removable") == "1";
    std::string swap = swap_on(t.devices);
    facts.carries_system = !swap.empty();
    facts.mount_points = t.mount_points;
    switch (disk_policy::judge(facts)) {
    case disk_policy::Verdict::Writable: return;
    case disk_policy::Verdict::System:
        if (!swap.empty()) throw WriterError(t.path + " is in use as swap space (" + swap + "); choose another disk");
        throw WriterError(t.path + " holds the running system (" +
                          first_mount(t.mount_points, disk_policy::MountUse::System) +
                          " is mounted from it); choose another disk");
    case disk_policy::Verdict::ForeignMount:
        refuse_foreign_mount(t, first_mount(t.mount_points, disk_policy::MountUse::Other));
    case disk_policy::Verdict::NotExternal:
        if (kinds == TargetKinds::DisksLoopDevicesAndFiles && fs::exists(sysfs_path + "/loop")) return;
        throw WriterError(t.path + " is neither a USB drive nor an SD card; only those are written here, "
                          "choose the USB stick or SD card");
    }
}

// Reopened for reading, the same device proven by its number; the checks so far needed none.
FileDescriptor open_for_inspection(const Target& t) {
    FileDescriptor fd = open_node(t.node, O_RDONLY);
    if (!fd) throw WriterError(describe_open_error(t.path, errno));
    struct stat st{};
    if (fstat(fd.get(), &st) != 0 || !S_ISBLK(st.st_mode) || st.st_rdev != t.device) throw WriterError(kDriveChanged);
    return fd;
}

void refuse_read_only(const Target& t) {
    int ro = 0;
    if (ioctl(t.fd.get(), BLKROGET, &ro) == 0 && ro)
        throw WriterError(t.path + " is write-protected; if it is an SD card, slide the lock switch on "
                          "its side away from LOCK and insert it again");
}

uint64_t block_device_size(const Target& t) {
    uint64_t size = 0;
    if (ioctl(t.fd.get(), BLKGETSIZE64, &size) != 0)
        throw WriterError("cannot read the size of " + t.path + ": " + std::strerror(errno));
    return size;
}

void inspect_block_device(Target& t, TargetKinds kinds) {
    std::string sysdir = sysfs_dev_dir(t.device);
    if (fs::exists(sysdir + "/partition"))
        throw WriterError(t.path + " is a partition; choose the whole disk it belongs to");
    std::error_code ec;
    fs::path sysfs_path = fs::canonical(sysdir, ec);
    if (ec) throw WriterError(t.path + " is not known to the system as a disk");
    t.disk_name = sysfs_path.filename();
    for (const Device& d : disk_and_dependents(t.disk_name, t.device)) t.devices.push_back(d.number);
    t.mount_points = mounts_on(t.devices);
    refuse_by_policy(t, sysfs_path, kinds);  // first: it needs nothing from the disk itself
    t.fd = open_for_inspection(t);
    refuse_read_only(t);
    t.size = block_device_size(t);
}

Target open_regular_file(const std::string& path) {
    Target t;
    t.path = path;
    t.regular_file = true;
    t.fd = FileDescriptor(::open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC));
    if (!t.fd && errno == EISDIR) throw WriterError(path + " is not a disk; choose a disk");
    if (!t.fd) throw WriterError(describe_open_error(path, errno));
    struct stat st{};
    if (fstat(t.fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) throw WriterError(path + " is not a disk; choose a disk");
    return t;
}

bool set_direct_io(int fd, bool on) {
    int flags = fcntl(fd, F_GETFL);
    return flags >= 0 && fcntl(fd, F_SETFL, on ? flags | O_DIRECT : flags & ~O_DIRECT) == 0;
}

}  // namespace

Target open_target(const std::string& path, TargetKinds kinds) {
    Target t;
    t.path = path;
    t.node = device_node(path, &t.by_id_link);
    if (t.node.empty() && kinds == TargetKinds::DisksLoopDevicesAndFiles) return open_regular_file(path);
    if (t.node.empty())
        throw WriterError(path + " is not a disk; name the disk as /dev/NAME or by its link in /dev/disk/by-id");
    // O_PATH: the device number and sysfs decide first, before the disk itself is opened.
    t.fd = open_node(t.node, O_PATH);
    if (!t.fd) throw WriterError(describe_open_error(path, errno));
    struct stat st{};
    if (fstat(t.fd.get(), &st) != 0) throw WriterError(describe_io_error(errno, "inspect"));
    if (S_ISCHR(st.st_mode)) throw WriterError(path + " is a character device, not a disk; choose a disk");
    if (!S_ISBLK(st.st_mode)) throw WriterError(path + " is not a disk; choose a disk");
    t.device = st.st_rdev;
    inspect_block_device(t, kinds);
    return t;
}

void refuse_smaller_than(const Target& t, uint64_t image_bytes) {
    if (!t.regular_file && t.size < image_bytes)
        throw WriterError(t.path + " is too small: the disk holds " + format_size(t.size) +
                          " but the image needs " + format_size(image_bytes) + "; use a larger disk");
}

// Writing would destroy the image while it is being read.
void refuse_image_on_target(const Target& t, int image_fd) {
    struct stat st{};
    if (!t.regular_file && fstat(image_fd, &st) == 0 && among(st.st_dev, t.devices))
        throw WriterError("the image is stored on " + t.path +
                          ", the disk it would be written to; copy the image to another disk first");
}

// A lazy (detached) unmount would leave the file system writing to the disk behind our
// back, so only a full unmount will do. Newest first, so mounts nested inside others go
// before their parents. Mounts are read again: one may have come since the checks.
void unmount_partitions(const Target& t) {
    if (t.regular_file) return;
    auto mounts = mounts_on(t.devices);
    for (auto m = mounts.rbegin(); m != mounts.rend(); ++m) {
        if (disk_policy::classify_mount(*m) != disk_policy::MountUse::RemovableMedia) refuse_foreign_mount(t, *m);
        if (umount2(m->c_str(), UMOUNT_NOFOLLOW) == 0) continue;
        if (errno == EBUSY)
            throw WriterError("disk busy: " + *m + " on " + t.path +
                              " cannot be unmounted; close programs using files on it and try again");
        throw WriterError("cannot unmount " + *m + ": " + std::strerror(errno));
    }
}

OpenTarget open_for_writing(const Target& t) {
    if (t.regular_file) {
        OpenTarget open{FileDescriptor(fcntl(t.fd.get(), F_DUPFD_CLOEXEC, 0)), false};
        if (!open.fd) throw WriterError(describe_io_error(errno, "open"));
        open.direct = set_direct_io(open.fd.get(), true);
        return open;
    }
    OpenTarget open{open_node(t.node, O_RDWR | O_EXCL | O_DIRECT), true};
    if (!open.fd && errno == EINVAL) open = {open_node(t.node, O_RDWR | O_EXCL), false};
    if (!open.fd) throw WriterError(describe_open_error(t.path, errno));
    struct stat st{};
    if (fstat(open.fd.get(), &st) != 0 || !S_ISBLK(st.st_mode) || st.st_rdev != t.device)
        throw WriterError(kDriveChanged);
    return open;
}

void refuse_changed_disk(const Target& t) {
    if (t.by_id_link.empty()) return;
    struct stat st{};
    if (node_of_by_id_link(t.by_id_link) != t.node || lstat(t.node.c_str(), &st) != 0 || !S_ISBLK(st.st_mode) ||
        st.st_rdev != t.device)
        throw WriterError(kDriveChanged);
}

void prepare_read_back(const Target& t, OpenTarget& open) {
    restore_direct_io(open);
    if (open.direct) return;
    // Without O_DIRECT, drop what the page cache holds so the read reaches the medium.
    posix_fadvise(open.fd.get(), 0, 0, POSIX_FADV_DONTNEED);
    if (!t.regular_file) ioctl(open.fd.get(), BLKFLSBUF, 0);
}

void clear_direct_io(OpenTarget& open) {
    if (open.direct && set_direct_io(open.fd.get(), false)) open.direct = false;
}

void restore_direct_io(OpenTarget& open) {
    if (!open.direct) open.direct = set_direct_io(open.fd.get(), true);
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
