// Hostile and ordinary release archives, built with libarchive's zip writer at test time (patched
// where zip headers can say what the writer will not), unpacked into temporary folders; and the
// folder exchange and removal the install step uses.
#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <functional>

#include "archive_unpack.h"
#include "folder_swap.h"
#include "temp_dir.h"
#include "zip_builder.h"

namespace {

namespace fs = std::filesystem;

// Rewrites a 32-bit field of the named entry's records: in the central directory (signature
// PK12, name at 46) the external attributes at 38 carry the file type and the uncompressed size
// is at 24; in the local header (PK34, name at 30) that size is at 22.
void patch(std::string& zip, const char* signature, const std::string& name, size_t offset, uint32_t value) {
    const size_t nameAt = signature[2] == 1 ? 46 : 30;
    for (size_t at = zip.find(signature, 0, 4); at != std::string::npos; at = zip.find(signature, at + 1, 4))
        if (zip.compare(at + nameAt, name.size(), name) == 0) std::memcpy(&zip[at + offset], &value, 4);
}
void setType(std::string& zip, const std::string& name, unsigned type) {
    patch(zip, "PK\1\2", name, 38, uint32_t(type | 0644) << 16);
}

int fdOf(const std::string& bytes) {
    int fd = memfd_create("archive", MFD_CLOEXEC);
    EXPECT_EQ(write(fd, bytes.data(), bytes.size()), ssize_t(bytes.size()));
    return fd;
}

std::vector<std::string> listing(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& e : fs::recursive_directory_iterator(folder)) names.push_back(e.path().lexically_relative(folder));
    std::sort(names.begin(), names.end());
    return names;
}

unsigned modeOf(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : ~0u;
}

TEST(ArchiveUnpack, RefusesHostileArchivesBeforeWritingAnything) {
    const std::string big(100, 'x');
    struct Case {
        const char* why;
        const char* says;
        std::vector<Planned> planned;
        std::function<void(std::string&)> patch = nullptr;
        UnpackLimits limits = {};
    };
    const Case cases[] = {
        {"parent", "parent folder", {{"ok", AE_IFREG, "1"}, {"../x", AE_IFREG, "1"}}},
        {"absolute", "absolute path", {{"/qm-unpack-test-abs", AE_IFREG, "1"}}},
        {"climbs in the middle", "parent folder", {{"a/../../x", AE_IFREG, "1"}}},
        {"absolute link", "link to an absolute", {{"l", AE_IFLNK, "/etc/passwd"}}},
        {"link out of a folder", "outside the archive", {{"a/b", AE_IFLNK, "../../x"}}},
        {"link up, then beneath it", "outside the archive", {{"lnk", AE_IFLNK, ".."}, {"lnk/x", AE_IFREG, "1"}}},
        {"beneath an inside link", "not a folder",
         {{"sub/", AE_IFDIR}, {"lnk", AE_IFLNK, "sub"}, {"lnk/x", AE_IFREG, "1"}}},
        {"beneath a file", "not a folder", {{"f", AE_IFREG, "1"}, {"f/x", AE_IFREG, "1"}}},
        {"same path twice", "twice", {{"x", AE_IFREG, "1"}, {"x", AE_IFREG, "2"}}},
        {"file and folder of one name", "twice", {{"x", AE_IFREG, "1"}, {"x/", AE_IFDIR}}},
        {"over the size limit", "more than 150 bytes", {{"a", AE_IFREG, big}, {"b", AE_IFREG, big}}, {}, {150, 100}},
        {"too many entries", "more than 2 entries", {{"a"}, {"b"}, {"c"}}, {}, {1000, 2}},
        {"device", "device file", {{"ok", AE_IFREG, "1"}, {"dev", AE_IFREG}},
         [](std::string& z) { setType(z, "dev", S_IFCHR); }},
        {"socket", "socket", {{"sock", AE_IFREG}}, [](std::string& z) { setType(z, "sock", S_IFSOCK); }},
        {"not a zip", "unreadable archive", {}, [](std::string& z) { z = "PK\3\4 but nothing more"; }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.why);
        TempDir base;
        const std::string scratch = base / "scratch";
        fs::create_directory(scratch);
        std::string zip = zipOf(c.planned);
        if (c.patch) c.patch(zip);
        int fd = fdOf(zip);
        auto why = unpackArchive(fd, scratch, c.limits);
        close(fd);
        ASSERT_TRUE(why.has_value());
        EXPECT_NE(why->find(c.says), std::string::npos) << *why;
        EXPECT_EQ(why->find('\n'), std::string::npos);
        EXPECT_EQ(listing(base.path()), std::vector<std::string>{"scratch"}) << *why;
        EXPECT_FALSE(fs::exists("/qm-unpack-test-abs"));
    }
}

// What a zip cannot carry is checked on the entry descriptions themselves.
TEST(ArchiveUnpack, ChecksEntriesZipCannotCarry) {
    using K = EntryKind;
    auto entry = [](std::string path, K kind, std::string target = {}) {
        ArchiveEntryInfo e;
        e.path = std::move(path);
        e.kind = kind;
        e.linkTarget = std::move(target);
        e.sizeKnown = true;
        return e;
    };
    auto file = [&](std::string path) { return entry(std::move(path), K::File); };
    struct Case {
        const char* why;
        std::vector<ArchiveEntryInfo> entries;
        bool refused;
    };
    const Case cases[] = {
        {"fifo", {entry("p", K::Fifo)}, true},
        {"block device", {entry("b", K::BlockDevice)}, true},
        {"no type", {entry("u", K::Unknown)}, true},
        {"backslash", {file("a\\b")}, true},
        {"control character", {file("a\nb")}, true},
        {"empty name", {file("")}, true},
        {"hard link to a missing path", {entry("h", K::Hardlink, "nothere")}, true},
        {"hard link to a later file", {entry("h", K::Hardlink, "f"), file("f")}, true},
        {"hard link to a folder", {entry("d/", K::Folder), entry("h", K::Hardlink, "d")}, true},
        {"hard link outside", {entry("h", K::Hardlink, "../f")}, true},
        {"link climbing back through a link",
         {entry("d/", K::Folder), entry("d/up", K::Symlink, ".."), entry("d/l", K::Symlink, "up/../x")}, true},
        {"file of unknown size", {[&] { auto e = file("f"); e.sizeKnown = false; return e; }()}, true},
        {"hard link to an earlier file", {file("f"), entry("h", K::Hardlink, "f")}, false},
        {"links within the tree", {entry("a/b/c", K::Symlink, "../../x"), entry("a/l", K::Symlink, "./b/c")}, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(refuseEntries(c.entries, {}).has_value(), c.refused);
    }
}

TEST(ArchiveUnpack, UnpacksABundleByteForByteWithModes) {
    std::string binary(300000, '\0');
    for (size_t i = 0; i < binary.size(); ++i) binary[i] = char(i * 2654435761u >> 13);
    const std::vector<Planned> planned = {
        {"App/", AE_IFDIR, "", 0750},
        {"App/bin/app", AE_IFREG, binary, 0755},
        {"App/share/data.txt", AE_IFREG, "words\n", 0644},
        {"App/share/r\xC3\xA9sum\xC3\xA9.txt", AE_IFREG, "accents\n", 0600},
        {"App/lib/libx.so.1", AE_IFREG, "elf", 04755},
        {"App/lib/libx.so", AE_IFLNK, "libx.so.1"},
        {"App/empty", AE_IFREG, "", 0444},
        {"App/share/open.txt", AE_IFREG, "anyone's\n", 0666},
        {"App/shared/", AE_IFDIR, "", 0777},
    };
    TempDir scratch;
    int fd = fdOf(zipOf(planned));
    ASSERT_EQ(unpackArchive(fd, scratch.path()), std::nullopt);
    struct stat st;
    EXPECT_EQ(fstat(fd, &st), 0) << "the caller's descriptor stays open";
    close(fd);
    for (const Planned& s : planned) {
        SCOPED_TRACE(s.path);
        const std::string path = scratch / s.path;
        if (s.type == AE_IFLNK) {
            EXPECT_EQ(fs::read_symlink(path), s.data);
        } else if (s.type == AE_IFREG) {
            EXPECT_EQ(slurp(path), s.data);
            EXPECT_EQ(modeOf(path), s.perm & 0755);  // no setuid, nothing writable by group or others
        }
    }
    EXPECT_EQ(modeOf(scratch / "App"), 0750u);
    EXPECT_EQ(modeOf(scratch / "App/shared"), 0755u);
    EXPECT_EQ(modeOf(scratch / "App/bin"), 0755u) << "folders only implied by names are ordinary";
    EXPECT_EQ(slurp(scratch / "App/lib/libx.so"), "elf");

    TempDir notEmpty;
    spit(notEmpty / "left", "over");
    fd = fdOf(zipOf(planned));
    EXPECT_NE(unpackArchive(fd, notEmpty.path()), std::nullopt);
    close(fd);
}

TEST(ArchiveUnpack, LyingSizesCannotWritePastTheLimit) {
    const std::string data(1 << 20, 'z');
    std::string zip = zipOf({{"big", AE_IFREG, data}});
    patch(zip, "PK\1\2", "big", 24, 1000);
    patch(zip, "PK\3\4", "big", 22, 1000);
    TempDir base;
    const std::string scratch = base / "scratch";
    fs::create_directory(scratch);
    int fd = fdOf(zip);
    auto why = unpackArchive(fd, scratch, {64 * 1024, 10});
    ASSERT_TRUE(why.has_value());
    EXPECT_NE(why->find("more data than it declares"), std::string::npos) << *why;
    close(fd);
    EXPECT_LE(fs::file_size(scratch + "/big"), 1000u);
    EXPECT_EQ(listing(base.path()), (std::vector<std::string>{"scratch", "scratch/big"}));
}

TEST(FolderSwap, ExchangesAndRemovesWithoutFollowingLinks) {
    TempDir base;
    spit(base / "a/which", "a");
    spit(base / "b/which", "b");
    EXPECT_EQ(exchangeFolders(base / "a", base / "b"), std::nullopt);
    EXPECT_EQ(slurp(base / "a/which"), "b");
    EXPECT_EQ(slurp(base / "b/which"), "a");
    EXPECT_NE(exchangeFolders(base / "a", base / "missing"), std::nullopt);
    EXPECT_NE(exchangeFolders(base / "a", base / "a/which"), std::nullopt);

    spit(base / "outside/keep", "kept");
    spit(base / "tree/sub/deeper/f", "f");
    fs::create_directory_symlink(base / "outside", base / "tree/sub/dirlink");
    fs::create_symlink(base / "outside/keep", base / "tree/filelink");
    fs::permissions(base / "tree/sub/deeper", fs::perms::owner_read | fs::perms::owner_exec);
    EXPECT_TRUE(folderWritable(base / "tree"));
    EXPECT_FALSE(folderWritable(base / "tree/filelink"));
    EXPECT_TRUE(removeTree(base / "tree"));
    EXPECT_FALSE(fs::exists(fs::symlink_status(base / "tree")));
    EXPECT_EQ(slurp(base / "outside/keep"), "kept");
    EXPECT_TRUE(removeTree(base / "tree")) << "nothing left to remove";
}

}  // namespace
