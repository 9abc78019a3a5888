#include "archive_unpack.h"

#include <archive.h>
#include <archive_entry.h>
#include <dirent.h>
#include <fcntl.h>
#include <locale.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "regular_file.h"

namespace {

// No bundle nests anywhere near this deep; the bound keeps removing a tree to a few descriptors.
constexpr size_t kMaxDepth = 128;
constexpr size_t kMaxComponent = 255;
constexpr size_t kMaxPath = 4095;
constexpr size_t kReadBlock = 1 << 20;
// Opening a folder by name: never through a link.
constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

using Reason = std::optional<std::string>;

// A name as it may appear in a log line: one line, not too long.
std::string shown(std::string_view name) {
    std::string out = "\"";
    for (char c : name.substr(0, 200)) out += (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) ? '?' : c;
    return out + (name.size() > 200 ? "...\"" : "\"");
}

std::string errnoText(const std::string& what) { return what + ": " + std::strerror(errno); }

// Only the rwx bits travel (never setuid, setgid or sticky), and never write access for group or
// others: anyone else who could change the installed program would run as whoever starts it.
unsigned installedMode(unsigned stored) { return stored & 0755; }

std::vector<std::string_view> components(std::string_view path) {
    std::vector<std::string_view> parts;
    size_t start = 0;
    for (;;) {
        size_t slash = path.find('/', start);
        parts.push_back(path.substr(start, slash == std::string_view::npos ? slash : slash - start));
        if (slash == std::string_view::npos) return parts;
        start = slash + 1;
    }
}

// Shared by entry names and link targets: what no name may hold.
Reason badCharacters(std::string_view name) {
    if (name.size() > kMaxPath) return "is too long";
    for (char c : name) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) return "holds a control character";
        if (c == '\\') return "holds a backslash";
    }
    return std::nullopt;
}

// Entry names must be plain relative paths, so that two spellings never name one file and the
// duplicate and nesting checks can compare strings.
Reason badName(std::string_view name) {
    if (name.empty()) return "has no name";
    if (name.front() == '/') return "is an absolute path";
    if (auto why = badCharacters(name)) return why;
    const auto parts = components(name);
    if (parts.size() > kMaxDepth) return "nests too deep";
    for (std::string_view part : parts) {
        if (part.empty() || part == ".") return "has an empty or '.' component";
        if (part == "..") return "names a parent folder";
        if (part.size() > kMaxComponent) return "has a component that is too long";
    }
    return std::nullopt;
}

// A link may climb out of its own folder only with leading "..", never further than the archive
// root, and never after descending: a descent may pass through another link, after which ".."
// no longer means what the name says. Every link then resolves inside the tree, by induction.
Reason badLinkTarget(std::string_view linkPath, std::string_view target) {
    if (target.empty()) return "is a link to nothing";
    if (target.front() == '/') return "is a link to an absolute path";
    if (auto why = badCharacters(target)) return "is a link whose target " + *why;
    size_t depth = components(linkPath).size() - 1;
    bool descended = false;
    for (std::string_view part : components(target)) {
        if (part.empty() || part == ".") continue;
        if (part != "..") {
            descended = true;
        } else if (descended) {
            return "is a link that climbs back after descending";
        } else if (depth-- == 0) {
            return "is a link pointing outside the archive";
        }
    }
    return std::nullopt;
}

// Folder entries may end in one '/'; nothing else may.
std::string canonicalPath(const ArchiveEntryInfo& entry) {
    std::string path = entry.path;
    if (entry.kind == EntryKind::Folder && path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

std::string archiveError(archive* a) {
    const char* text = archive_error_string(a);
    return text ? text : "unknown error";
}

// Linux names are bytes; reading them as UTF-8 whatever the user's locale keeps a non-ASCII name
// from failing to convert under LANG=C. Per thread, for as long as the archive is read.
class Utf8Names {
public:
    Utf8Names() : locale_(newlocale(LC_CTYPE_MASK, "C.UTF-8", locale_t(nullptr))) {
        if (locale_) previous_ = uselocale(locale_);
    }
    ~Utf8Names() {
        if (!locale_) return;
        uselocale(previous_);
        freelocale(locale_);
    }
    Utf8Names(const Utf8Names&) = delete;
    Utf8Names& operator=(const Utf8Names&) = delete;

private:
    locale_t locale_;
    locale_t previous_ = nullptr;
};

struct ArchiveReader {
    archive* a = archive_read_new();
    ~ArchiveReader() { archive_read_free(a); }
};

// Each pass reads the archive anew from the start of the same descriptor.
Reason openArchive(int fd, ArchiveReader& reader) {
    if (::lseek(fd, 0, SEEK_SET) != 0) return errnoText("cannot rewind the archive");
    if (!reader.a) return "out of memory";
    archive_read_support_format_zip(reader.a);
    if (archive_read_open_fd(reader.a, fd, kReadBlock) != ARCHIVE_OK)
        return "not a readable zip archive: " + archiveError(reader.a);
    return std::nullopt;
}

// A warning is a failure too: it means a name that did not convert, a bad checksum, a size
// that did not match.
Reason nextHeader(archive* a, archive_entry** entry, bool* atEnd) {
    int rc = archive_read_next_header(a, entry);
    *atEnd = rc == ARCHIVE_EOF;
    if (rc == ARCHIVE_OK || rc == ARCHIVE_EOF) return std::nullopt;
    return "unreadable archive: " + archiveError(a);
}

Reason describe(archive_entry* e, ArchiveEntryInfo* info) {
    const char* path = archive_entry_pathname(e);
    if (!path) return "an entry name cannot be read";
    info->path = path;
    if (const char* target = archive_entry_hardlink(e)) {
        info->kind = EntryKind::Hardlink;
        info->linkTarget = target;
    } else {
        switch (archive_entry_filetype(e)) {
        case AE_IFREG: info->kind = EntryKind::File; break;
        case AE_IFDIR: info->kind = EntryKind::Folder; break;
        case AE_IFLNK:
            info->kind = EntryKind::Symlink;
            if (const char* link = archive_entry_symlink(e)) info->linkTarget = link;
            break;
        case AE_IFCHR: info->kind = EntryKind::CharDevice; break;
        case AE_IFBLK: info->kind = EntryKind::BlockDevice; break;
        case AE_IFIFO: info->kind = EntryKind::Fifo; break;
        case AE_IFSOCK: info->kind = EntryKind::Socket; break;
        default: info->kind = EntryKind::Unknown; break;
        }
    }
    info->sizeKnown = archive_entry_size_is_set(e) && archive_entry_size(e) >= 0;
    info->size = info->sizeKnown ? static_cast<uint64_t>(archive_entry_size(e)) : 0;
    info->mode = archive_entry_perm(e);
    return std::nullopt;
}

// Hands each data block of the current entry to take(block, length, offset); an unreadable block,
// or the first reason take gives, stops the reading.
template <typename Take>
Reason forEachBlock(archive* a, const std::string& path, Take take) {
    const void* block;
    size_t length;
    la_int64_t offset;
    for (;;) {
        int rc = archive_read_data_block(a, &block, &length, &offset);
        if (rc == ARCHIVE_EOF) return std::nullopt;
        if (rc != ARCHIVE_OK || offset < 0) return shown(path) + ": unreadable data: " + archiveError(a);
        if (Reason why = take(block, length, static_cast<uint64_t>(offset))) return why;
    }
}

// A file whose header leaves its length open (a streamed zip) is measured by reading it, so that
// the total is known before anything is written.
Reason measure(archive* a, ArchiveEntryInfo* info, uint64_t limit) {
    uint64_t end = 0;
    Reason why = forEachBlock(a, info->path, [&](const void*, size_t length, uint64_t offset) -> Reason {
        end = std::max(end, offset + length);
        if (end > limit) return shown(info->path) + ": larger than an update may be";
        return std::nullopt;
    });
    if (why) return why;
    info->size = end;
    info->sizeKnown = true;
    return std::nullopt;
}

Reason readEntries(int fd, const UnpackLimits& limits, std::vector<ArchiveEntryInfo>* entries) {
    ArchiveReader reader;
    if (auto why = openArchive(fd, reader)) return why;
    for (;;) {
        archive_entry* e;
        bool atEnd;
        if (auto why = nextHeader(reader.a, &e, &atEnd)) return why;
        if (atEnd) return std::nullopt;
        if (entries->size() >= limits.maxEntries)
            return "more than " + std::to_string(limits.maxEntries) + " entries";
        ArchiveEntryInfo info;
        if (auto why = describe(e, &info)) return why;
        if (info.kind == EntryKind::File && !info.sizeKnown)
            if (auto why = measure(reader.a, &info, limits.maxTotalBytes)) return why;
        entries->push_back(std::move(info));
    }
}

bool writeAllAt(int fd, const char* data, size_t length, off_t offset) {
    while (length > 0) {
        ssize_t n = ::pwrite(fd, data, length, offset);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        length -= static_cast<size_t>(n);
        offset += n;
    }
    return true;
}

// Writes entries below one folder descriptor. Every name is walked one folder at a time with
// O_NOFOLLOW and every new entry is made with O_EXCL (or mkdirat/symlinkat/linkat, which never
// replace), so neither a link nor anything already there can redirect a write.
class TreeWriter {
public:
    TreeWriter(int root, uint64_t maxBytes) : root_(root), bytesLeft_(maxBytes) {}

    Reason write(archive* a, const ArchiveEntryInfo& entry) {
        const std::string path = canonicalPath(entry);
        std::string leaf;
        int parent = openParent(path, &leaf, true);
        if (parent < 0) return errnoText(shown(path) + ": cannot make its folder");
        switch (entry.kind) {
        case EntryKind::Folder: return makeFolder(parent, leaf, path, entry.mode);
        case EntryKind::File: return writeFile(a, parent, leaf, entry);
        case EntryKind::Symlink:
            if (::symlinkat(entry.linkTarget.c_str(), parent, leaf.c_str()) != 0)
                return errnoText(shown(path) + ": cannot make the link");
            return std::nullopt;
        case EntryKind::Hardlink: return makeHardlink(parent, leaf, path, entry.linkTarget);
        default: return shown(path) + ": not a kind of entry that is unpacked";
        }
    }

    // Folders are made owner-only while filling and get their own modes last, so an archive
    // that marks a folder read-only cannot stop its own contents from landing.
    Reason applyFolderModes() {
        for (const auto& [path, mode] : folderModes_) {
            std::string leaf;
            int parent = openParent(path, &leaf, false);
            UniqueFd folder(parent < 0 ? -1 : ::openat(parent, leaf.c_str(), kFolderFlags));
            if (!folder.valid() || ::fchmod(folder.get(), mode) != 0)
                return errnoText(shown(path) + ": cannot set its mode");
        }
        return std::nullopt;
    }

private:
    // The folder holding path, made as needed (create) and kept open for the next entry, which
    // usually shares it. Returns a descriptor this writer owns, or -1 with errno set.
    int openParent(const std::string& path, std::string* leaf, bool create) {
        size_t slash = path.rfind('/');
        *leaf = slash == std::string::npos ? path : path.substr(slash + 1);
        if (slash == std::string::npos) return root_;
        const std::string folderPath = path.substr(0, slash);
        if (cached_.valid() && cachedPath_ == folderPath) return cached_.get();
        cached_.reset();
        UniqueFd current;
        std::string walked;
        for (std::string_view part : components(folderPath)) {
            const std::string name(part);
            walked += (walked.empty() ? "" : "/") + name;
            const int at = current.valid() ? current.get() : root_;
            int fd = ::openat(at, name.c_str(), kFolderFlags);
            if (fd < 0 && errno == ENOENT && create) {
                if (::mkdirat(at, name.c_str(), 0700) != 0) return -1;
                folderModes_.emplace(walked, 0755);  // implied by a file's name: an ordinary folder
                fd = ::openat(at, name.c_str(), kFolderFlags);
            }
            if (fd < 0) return -1;
            current = UniqueFd(fd);
        }
        cached_ = std::move(current);
        cachedPath_ = folderPath;
        return cached_.get();
    }

    Reason makeFolder(int parent, const std::string& leaf, const std::string& path, unsigned mode) {
        if (::mkdirat(parent, leaf.c_str(), 0700) != 0) {
            struct stat st;
            // Already made for an earlier entry beneath it: then it is a real folder, not a link.
            if (errno != EEXIST || ::fstatat(parent, leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 ||
                !S_ISDIR(st.st_mode))
                return errnoText(shown(path) + ": cannot make the folder");
        }
        // The owner keeps full access, or the tree could not be checked or removed.
        folderModes_[path] = installedMode(mode) | 0700;
        return std::nullopt;
    }

    Reason writeFile(archive* a, int parent, const std::string& leaf, const ArchiveEntryInfo& entry) {
        const std::string& path = entry.path;
        UniqueFd file(::openat(parent, leaf.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!file.valid()) return errnoText(shown(path) + ": cannot create");
        uint64_t end = 0;
        Reason why = forEachBlock(a, path, [&](const void* block, size_t length, uint64_t offset) -> Reason {
            // Headers may lie about sizes: real bytes count, before they are written.
            const uint64_t blockEnd = offset + length;
            if (blockEnd > entry.size) return shown(path) + ": holds more data than it declares";
            if (length > bytesLeft_) return shown(path) + ": the archive holds more data than an update may";
            bytesLeft_ -= length;
            if (!writeAllAt(file.get(), static_cast<const char*>(block), length, static_cast<off_t>(offset)))
                return errnoText(shown(path) + ": cannot write");
            end = std::max(end, blockEnd);
            return std::nullopt;
        });
        if (why) return why;
        if (end != entry.size) return shown(path) + ": holds less data than it declares";
        if (::fchmod(file.get(), installedMode(entry.mode) | 0400) != 0)
            return errnoText(shown(path) + ": cannot set its mode");
        if (::close(file.release()) != 0) return errnoText(shown(path) + ": cannot write");
        return std::nullopt;
    }

    Reason makeHardlink(int parent, const std::string& leaf, const std::string& path, const std::string& target) {
        // The target's folder is walked like any other (the parent descriptor may be reused, so
        // it is duplicated first); linkat without AT_SYMLINK_FOLLOW never follows a link.
        UniqueFd here(::fcntl(parent, F_DUPFD_CLOEXEC, 0));
        std::string targetLeaf;
        int targetParent = here.valid() ? openParent(target, &targetLeaf, false) : -1;
        if (targetParent < 0 || ::linkat(targetParent, targetLeaf.c_str(), here.get(), leaf.c_str(), 0) != 0)
            return errnoText(shown(path) + ": cannot make the hard link");
        return std::nullopt;
    }

    int root_;
    uint64_t bytesLeft_;
    UniqueFd cached_;
    std::string cachedPath_;
    std::unordered_map<std::string, unsigned> folderModes_;
};

bool sameEntry(const ArchiveEntryInfo& a, const ArchiveEntryInfo& b) {
    return a.path == b.path && a.kind == b.kind && a.linkTarget == b.linkTarget && a.mode == b.mode;
}

Reason writeEntries(int fd, int root, const std::vector<ArchiveEntryInfo>& checked, const UnpackLimits& limits) {
    ArchiveReader reader;
    if (auto why = openArchive(fd, reader)) return why;
    TreeWriter writer(root, limits.maxTotalBytes);
    for (size_t i = 0;; ++i) {
        archive_entry* e;
        bool atEnd;
        if (auto why = nextHeader(reader.a, &e, &atEnd)) return why;
        if (atEnd) {
            if (i != checked.size()) return "the archive changed while it was unpacked";
            break;
        }
        ArchiveEntryInfo info;
        if (auto why = describe(e, &info)) return why;
        // What is written is what was checked: the file behind fd could have changed between passes.
        if (i >= checked.size() || !sameEntry(info, checked[i])) return "the archive changed while it was unpacked";
        if (auto why = writer.write(reader.a, checked[i])) return why;
    }
    return writer.applyFolderModes();
}

Reason notEmptyFolder(int root) {
    DIR* dir = ::fdopendir(::fcntl(root, F_DUPFD_CLOEXEC, 0));
    if (!dir) return errnoText("cannot list the scratch folder");
    bool empty = true;
    while (dirent* d = ::readdir(dir))
        if (std::strcmp(d->d_name, ".") != 0 && std::strcmp(d->d_name, "..") != 0) empty = false;
    ::closedir(dir);
    return empty ? std::nullopt : Reason("the scratch folder is not empty");
}

}  // namespace

std::optional<std::string> refuseEntry(const ArchiveEntryInfo& entry) {
    const std::string path = canonicalPath(entry);
    const std::string name = shown(entry.path) + " ";
    if (auto why = badName(path)) return name + *why;
    switch (entry.kind) {
    case EntryKind::File:
    case EntryKind::Folder: return std::nullopt;
    case EntryKind::Symlink:
        if (auto why = badLinkTarget(path, entry.linkTarget)) return name + *why;
        return std::nullopt;
    case EntryKind::Hardlink:
        if (auto why = badName(entry.linkTarget)) return name + "is a hard link whose target " + *why;
        return std::nullopt;
    case EntryKind::CharDevice:
    case EntryKind::BlockDevice: return name + "is a device file";
    case EntryKind::Fifo: return name + "is a named pipe";
    case EntryKind::Socket: return name + "is a socket";
    case EntryKind::Unknown: break;
    }
    return name + "is of an unknown file type";
}

std::optional<std::string> refuseEntries(const std::vector<ArchiveEntryInfo>& entries, const UnpackLimits& limits) {
    if (entries.size() > limits.maxEntries) return "more than " + std::to_string(limits.maxEntries) + " entries";
    std::unordered_map<std::string, EntryKind> earlier;
    std::vector<std::string> notFolders;
    uint64_t total = 0;
    for (const ArchiveEntryInfo& entry : entries) {
        if (auto why = refuseEntry(entry)) return why;
        std::string path = canonicalPath(entry);
        if (entry.kind == EntryKind::Hardlink) {
            auto target = earlier.find(entry.linkTarget);
            if (target == earlier.end() || target->second != EntryKind::File)
                return shown(path) + " is a hard link to something that is not an earlier file of the archive";
        }
        if (!earlier.emplace(path, entry.kind).second) return shown(path) + " is in the archive twice";
        if (entry.kind == EntryKind::File) {
            // unpackArchive measures what the headers leave open, so this only stops other callers.
            if (!entry.sizeKnown) return shown(path) + " has no declared size";
            if (entry.size > limits.maxTotalBytes - total)
                return "the archive declares more than " + std::to_string(limits.maxTotalBytes) + " bytes";
            total += entry.size;
        }
        if (entry.kind != EntryKind::Folder) notFolders.push_back(std::move(path));
    }
    // Nothing may lie beneath a file or a link: writing it would mean opening that as a folder.
    // Every name below "p" sorts at or after "p/", so a binary search finds one if there is any.
    std::vector<std::string> sorted;
    sorted.reserve(earlier.size());
    for (const auto& entry : earlier) sorted.push_back(entry.first);
    std::sort(sorted.begin(), sorted.end());
    for (const std::string& path : notFolders) {
        const std::string prefix = path + "/";
        auto next = std::lower_bound(sorted.begin(), sorted.end(), prefix);
        if (next != sorted.end() && next->compare(0, prefix.size(), prefix) == 0)
            return shown(*next) + " lies beneath " + shown(path) + ", which is not a folder";
    }
    return std::nullopt;
}

std::optional<std::string> unpackArchive(int fd, const std::string& scratchDir, const UnpackLimits& limits) {
    UniqueFd root(::open(scratchDir.c_str(), kFolderFlags));
    if (!root.valid()) return errnoText("cannot open the scratch folder");
    if (auto why = notEmptyFolder(root.get())) return why;
    Utf8Names utf8;
    std::vector<ArchiveEntryInfo> entries;
    if (auto why = readEntries(fd, limits, &entries)) return why;
    if (auto why = refuseEntries(entries, limits)) return why;
    return writeEntries(fd, root.get(), entries, limits);
}
