#include "disk_policy.h"

#include <algorithm>
#include <array>

namespace disk_policy {
namespace {

constexpr std::array<std::string_view, 12> kSystemMountPoints = {
    "/", "/boot", "/boot/efi", "/boot/firmware", "/usr", "/var", "/home", "[SWAP]",
    // the medium a live system runs from
    "/cdrom", "/run/live/medium", "/run/initramfs/live", "/run/archiso/bootmnt"};

bool starts_with(std::string_view s, std::string_view prefix) { return s.substr(0, prefix.size()) == prefix; }

bool below(std::string_view path, std::string_view folder) {
    return path.size() > folder.size() + 1 && starts_with(path, folder) && path[folder.size()] == '/';
}

// mmcblk0, not its mmcblk0boot0 / mmcblk0rpmb hardware partitions
bool is_card_name(std::string_view name) {
    if (!starts_with(name, "mmcblk") || name.size() == 6) return false;
    return std::all_of(name.begin() + 6, name.end(), [](char c) { return c >= '0' && c <= '9'; });
}

bool is_external(const DiskFacts& d) {
    if (d.transport == "usb") return true;
    if (is_card_name(d.name) && (d.removable || d.transport == "mmc")) return true;
    // Without a transport, removable or hot-plug is all there is to go by.
    return !d.transport_known && d.removable;
}

// The kernel writes blanks, tabs, newlines and backslashes in paths as "\ooo".
std::string decode_octal_escapes(std::string_view in) {
    std::string out;
    out.reserve(in.size());
    for (size_t i = 0; i < in.size(); ++i) {
        if (in[i] == '\\' && i + 3 < in.size()) {
            const char a = in[i + 1], b = in[i + 2], c = in[i + 3];
            if (a >= '0' && a <= '3' && b >= '0' && b <= '7' && c >= '0' && c <= '7') {
                out += char((a - '0') * 64 + (b - '0') * 8 + (c - '0'));
                i += 3;
                continue;
            }
        }
        out += in[i];
    }
    return out;
}

std::vector<std::string_view> split(std::string_view s, char sep) {
    std::vector<std::string_view> out;
    for (size_t start = 0;;) {
        size_t end = s.find(sep, start);
        out.push_back(s.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start));
        if (end == std::string_view::npos) return out;
        start = end + 1;
    }
}

std::vector<std::string_view> words(std::string_view line) {
    std::vector<std::string_view> out;
    for (std::string_view w : split(line, ' '))
        for (std::string_view x : split(w, '\t'))
            if (!x.empty()) out.push_back(x);
    return out;
}

}  // namespace

MountUse classify_mount(std::string_view m) {
    if (std::find(kSystemMountPoints.begin(), kSystemMountPoints.end(), m) != kSystemMountPoints.end())
        return MountUse::System;
    if (below(m, "/media") || below(m, "/run/media")) return MountUse::RemovableMedia;
    return MountUse::Other;
}

Verdict judge(const DiskFacts& d) {
    bool foreign = false;
    for (const std::string& m : d.mount_points) {
        MountUse use = classify_mount(m);
        if (use == MountUse::System) return Verdict::System;
        foreign = foreign || use == MountUse::Other;
    }
    if (d.carries_system) return Verdict::System;
    if (is_virtual_name(d.name) || !is_external(d)) return Verdict::NotExternal;
    return foreign ? Verdict::ForeignMount : Verdict::Writable;
}

bool is_safe_device_name(std::string_view name) {
    if (name.empty() || name.size() > 64 || name == "." || name == ".." || name[0] == '-') return false;
    return std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-' ||
               c == '.' || c == '+';
    });
}

bool is_virtual_name(std::string_view name) {
    for (std::string_view prefix : {"loop", "zram", "ram", "dm-", "md", "sr", "fd", "nbd"})
        if (starts_with(name, prefix)) return true;
    return false;
}

std::vector<Mount> parse_mountinfo(std::string_view mountinfo) {
    std::vector<Mount> out;
    for (std::string_view line : split(mountinfo, '\n')) {
        // id parent major:minor root mountpoint options [optional...] - fstype source superopts
        std::vector<std::string_view> f = split(line, ' ');
        auto sep = std::find(f.begin() + std::min<size_t>(6, f.size()), f.end(), "-");
        if (f.size() < 10 || sep == f.end() || sep + 2 >= f.end()) continue;
        out.push_back(Mount{std::string(f[2]), decode_octal_escapes(f[4]), decode_octal_escapes(*(sep + 2))});
    }
    return out;
}

std::vector<std::string> parse_swaps(std::string_view proc_swaps) {
    std::vector<std::string> out;
    std::vector<std::string_view> lines = split(proc_swaps, '\n');
    for (size_t i = 1; i < lines.size(); ++i) {  // the first line is the column header
        std::vector<std::string_view> w = words(lines[i]);
        if (!w.empty()) out.push_back(decode_octal_escapes(w[0]));
    }
    return out;
}

}  // namespace disk_policy
