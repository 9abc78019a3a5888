// Which disks an image may be written to. The app judges what lsblk reports, the writer what
// sysfs says of the device it opened; both ask these functions, so they agree.
#pragma once
#include <string>
#include <string_view>
#include <vector>

namespace disk_policy {

// Where a mounted file system rules its disk out, or not.
enum class MountUse {
    RemovableMedia,  // under /media or /run/media: the desktop's own, unmounted before a write
    System,          // the running system, its firmware partition, swap or the live medium
    Other,           // anything else (/data, /mnt/backup): someone's files, never unmounted for them
};
MountUse classify_mount(std::string_view mount_point);

// What a disk is, as far as the rules need to know.
struct DiskFacts {
    std::string name;          // the kernel's name: sdb, mmcblk0
    std::string transport;     // "usb", "mmc", "sata", ...; empty when unknown
    bool transport_known = true;  // false for an lsblk too old to report it
    bool removable = false;    // the removable or hot-plug flag
    bool carries_system = false;  // the system, swap or a live medium sits on it or on what it holds
    std::vector<std::string> mount_points;  // of the disk, its partitions and what sits on them
};

enum class Verdict {
    Writable,
    NotExternal,   // neither a USB disk nor an SD/MMC card
    System,        // holds the running system or swap
    ForeignMount,  // a file system mounted outside the removable-media places
};
Verdict judge(const DiskFacts& disk);

// A kernel device name that is safe to put after "/dev/": no separators, no dot names.
bool is_safe_device_name(std::string_view name);
// Devices that are not disks of their own: loop, zram, device-mapper, RAID, optical, ...
bool is_virtual_name(std::string_view name);

// /proc/self/mountinfo and /proc/swaps, with the kernel's octal escapes decoded.
struct Mount {
    std::string major_minor;  // "8:2"; btrfs and overlays show an anonymous 0:N here
    std::string mount_point;
    std::string source;       // "/dev/sda2", "/dev/root", "overlay"
};
std::vector<Mount> parse_mountinfo(std::string_view mountinfo);
std::vector<std::string> parse_swaps(std::string_view proc_swaps);  // device or file names

}  // namespace disk_policy
