// Unpacking a downloaded release archive (a zip) into a scratch folder. Every entry is checked
// before a byte is written, and the writes themselves cannot leave the scratch folder whatever
// the archive holds: names are resolved one folder at a time without following any link.
// Plain C++ on libarchive and POSIX, no Qt, so that the fuzzer can drive it directly.
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// What a release may weigh: the archive as downloaded, and everything it unpacks to.
constexpr uint64_t kMaxUpdateBytes = 1ull << 30;

struct UnpackLimits {
    uint64_t maxTotalBytes = kMaxUpdateBytes;
    uint64_t maxEntries = 100000;
};

enum class EntryKind { File, Folder, Symlink, Hardlink, CharDevice, BlockDevice, Fifo, Socket, Unknown };

// One entry as the archive describes it, for the checks.
struct ArchiveEntryInfo {
    std::string path;        // as stored; a folder may end in one '/'
    EntryKind kind = EntryKind::Unknown;
    std::string linkTarget;  // Symlink: the target as stored; Hardlink: the archive path it names
    uint64_t size = 0;       // File: the declared length
    bool sizeKnown = false;
    unsigned mode = 0;       // permission bits as stored (only rwxr-xr-x of them are ever applied)
};

// Why the entry must not be unpacked, or nullopt when it may. Looks at the entry alone.
std::optional<std::string> refuseEntry(const ArchiveEntryInfo& entry);

// Why the archive must not be unpacked: refuseEntry on each entry, plus what needs them all
// (names given twice, entries beneath a file or a link, hard links to anything but an earlier
// file, the entry count and the declared total against the limits).
std::optional<std::string> refuseEntries(const std::vector<ArchiveEntryInfo>& entries, const UnpackLimits& limits);

// Reads the zip archive from the open descriptor fd (from offset 0; the caller keeps the fd,
// the archive is never reopened by name), checks every entry and the total size first, writing
// nothing, and only when all pass writes them under scratchDir (an existing empty folder).
// nullopt on success, else a one-line reason (for logs; the app shows its own text). On failure
// scratchDir may hold part of the archive: the caller removes it (removeTree in folder_swap.h).
std::optional<std::string> unpackArchive(int fd, const std::string& scratchDir, const UnpackLimits& limits = {});
