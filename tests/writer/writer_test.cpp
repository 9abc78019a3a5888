// The writer run as the app runs it: stdout protocol, bytes on the target, refusals.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <filesystem>
#include <optional>
#include <random>
#include <thread>
#include <unistd.h>

#include "temp_dir.h"
#include "writer_protocol.h"
#include "writer_run.h"
#include "zero_image.h"

namespace {

constexpr size_t kMiB = 1024 * 1024;
const std::vector<std::string> kImages = {"uefi_fat32", "uefi_exfat", "bios_fat32", "bios_exfat"};
const std::vector<std::string> kInflaters = {"--inflater=zlib", "--inflater=isal"};

std::string sample(const std::string& name) { return std::string(QM_SAMPLE_IMAGE_DIR) + "/" + name + ".img.gz"; }

// The reports of one kind in a run, read as the app reads them.
std::vector<WriterLine> reports(const WriterRun& run, WriterLine::Kind kind) {
    std::vector<WriterLine> out;
    for (const auto& l : run.lines)
        if (WriterLine r = parseWriterLine(l); r.kind == kind) out.push_back(r);
    return out;
}

// A successful run: P from 0 up to the total, never backwards; then V up to the total; DONE.
void expect_complete_protocol(const WriterRun& run, uint64_t total) {
    ASSERT_EQ(run.exit_code, 0) << run.err_line();
    ASSERT_TRUE(run.done());
    for (const auto& l : run.lines) EXPECT_NE(parseWriterLine(l).kind, WriterLine::Other) << l;
    for (auto kind : {WriterLine::Progress, WriterLine::Verified}) {
        auto lines = reports(run, kind);
        ASSERT_FALSE(lines.empty()) << kind;
        EXPECT_EQ(lines.front().done, 0) << kind;
        EXPECT_EQ(lines.back().done, double(total)) << kind;
        const auto by_done = [](const WriterLine& a, const WriterLine& b) { return a.done < b.done; };
        EXPECT_TRUE(std::is_sorted(lines.begin(), lines.end(), by_done)) << kind;
        for (const auto& l : lines) EXPECT_EQ(l.total, double(total)) << kind;
    }
    EXPECT_EQ(run.err_line(), "");
}

bool is_root() { return geteuid() == 0; }

}  // namespace

TEST(WriterToFile, EachImageWithEachInflaterMatchesGunzip) {
    TempDir dir;
    std::vector<std::string> images{dir / "random.img.gz"};
    for (const auto& name : kImages) images.push_back(sample(name));
    // Random bytes do not compress: too large to size from its trailer alone, it is decoded once to count them.
    std::mt19937_64 random(7);
    std::string noise(6 * kMiB + 123, '\0');
    for (auto& b : noise) b = static_cast<char>(random());
    write_gzip_with_zero_tail(images[0], noise, 0);
    for (const auto& image : images) {
        std::string expected = gunzip(image);
        for (const auto& inflater : kInflaters) {
            SCOPED_TRACE(image + " " + inflater);
            std::string target = dir / "target.img";
            fill_file(target, 64 * kMiB, '\x5a');  // longer than the image: must be cut to size
            WriterRun run = run_writer({inflater, image, target});
            expect_complete_protocol(run, expected.size());
            EXPECT_TRUE(slurp(target) == expected);
        }
    }
}

// A failure found while writing leaves the first MiB zeroed: neither the image's partition table nor the
// old one, on a file and (as root) on a loop device that held the image. One found before writing leaves
// the target alone.
TEST(WriterOnFileAndLoopDevice, BrokenImagesStopWithoutAPartitionTable) {
    TempDir dir;
    const std::string good = slurp(sample("uefi_fat32"));
    const auto flipped = [&](size_t at, size_t count, char mask) {
        std::string bytes = good;
        for (size_t i = at; i < at + count; ++i) bytes[i] ^= mask;
        return bytes;
    };
    const struct { const char* name; std::string bytes; const char* says; bool zeroes; } cases[] = {
        {"corrupt", flipped(good.size() / 2, 64, '\xff'), "corrupt", true},
        {"corrupt near the end", flipped(good.size() - 4096, 96, '\xff'), "corrupt", true},
        {"bad checksum", flipped(good.size() - 6, 1, 1), "corrupt", true},
        {"bad length", flipped(good.size() - 4, 1, 1), "corrupt", true},
        {"a trailer claiming more than the data can hold", flipped(good.size() - 1, 1, 0x10), "corrupt", false},
        {"truncated", good.substr(0, good.size() / 2), "corrupt", false},  // its "trailer" is absurd
        {"not gzip", std::string(4096, 'x'), "corrupt", false},
        {"empty", "", "truncated", false},
    };
    std::vector<std::string> targets{dir / "target.img"};
    std::optional<LoopDevice> loop;
    if (is_root()) {
        fill_file(dir / "disk", 64 * kMiB, '\0');
        targets.push_back(loop.emplace(dir / "disk", std::vector<std::string>{}).path());
    }
    for (const auto& target : targets)
        for (const auto& c : cases)
            for (const auto& inflater : kInflaters) {
                SCOPED_TRACE(target + " " + c.name + " " + inflater);
                if (target == targets[0]) {
                    fill_file(target, 2 * kMiB, '\x5a');
                } else {
                    ASSERT_TRUE(run_writer({sample("uefi_fat32"), target}).done());
                }
                const std::string before = read_prefix(target, kMiB);
                spit(dir / "bad.img.gz", c.bytes);
                WriterRun run = run_writer({inflater, dir / "bad.img.gz", target});
                EXPECT_NE(run.exit_code, 0);
                EXPECT_FALSE(run.done());
                EXPECT_NE(run.err_line().find(c.says), std::string::npos) << run.err_line();
                EXPECT_TRUE(read_prefix(target, kMiB) == (c.zeroes ? std::string(kMiB, '\0') : before));
            }
}

// Killed midway, the target has no partition table yet. The total reported is the decoded size,
// also of an image over 4 GiB, whose gzip trailer keeps that size modulo 4 GiB only.
TEST(WriterToFile, KilledMidwayLeavesTheFirstMiBZeroed) {
    TempDir dir;
    const std::string head = gunzip(sample("bios_fat32"));
    write_gzip_with_zero_tail(dir / "long.img.gz", head, 1024 * kMiB);
    const struct { std::string image; uint64_t total; } cases[] = {
        {dir / "long.img.gz", head.size() + 1024 * kMiB}, {cached_zero_image(kOver4GiB), kOver4GiB}};
    for (const auto& c : cases) {
        fill_file(dir / "target.img", 2 * kMiB, '\x5a');
        EXPECT_EQ(kill_writer_midway({c.image, dir / "target.img"}, 1), c.total) << c.image;
        EXPECT_TRUE(read_prefix(dir / "target.img", kMiB) == std::string(kMiB, '\0'));
    }
}

// The installed writer takes exactly an image and a disk: no switch, no file, no other path.
// The test build takes files too, but no link and no image by a link.
TEST(WriterRefuses, TargetsThatAreNotDisks) {
    TempDir dir;
    fill_file(dir / "file.img", 2 * kMiB, '\x5a');
    std::string before = slurp(dir / "file.img");
    std::filesystem::create_directory(dir / "folder");
    std::filesystem::create_symlink(dir / "file.img", dir / "link.img");
    std::filesystem::create_symlink(sample("bios_fat32"), dir / "link.img.gz");
    std::filesystem::create_directory_symlink(QM_SAMPLE_IMAGE_DIR, dir / "images");
    const std::string image = sample("bios_fat32");
    const char *const Installed = QM_INSTALLED_WRITER_PATH, *const Test = QM_WRITER_PATH;
    const struct { const char* writer; std::vector<std::string> args; const char* says; } cases[] = {
        {Installed, {image, dir / "file.img"}, "not a disk"},
        {Installed, {"--allow-regular-file", image, dir / "file.img"}, "usage"},
        {Installed, {"--inflater=zlib", image, dir / "file.img"}, "usage"},
        {Installed, {image, dir / "file.img", "--allow-regular-file"}, "usage"},
        {Installed, {image, "/dev/../" + dir / "file.img"}, "not a disk"},
        {Installed, {image, "/dev/disk/by-id/../../" + dir / "file.img"}, "not a disk"},
        {Installed, {image, "/dev/null"}, "character device"},
        {Installed, {image, "/dev/qm-no-such-disk"}, "does not exist"},
        {Test, {image, dir / "folder"}, "not a disk"},
        {Test, {image, dir / "link.img"}, "link"},
        {Test, {dir / "link.img.gz", dir / "file.img"}, "link"},
        {Test, {dir / "images/bios_fat32.img.gz", dir / "file.img"}, "link"},
        {Test, {dir / "missing.gz", dir / "file.img"}, "cannot open the image"},
        {Test, {"--inflater=lzma", image, dir / "file.img"}, "unknown inflater"},
        {Test, {image}, "usage"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args.back());
        WriterRun run = run_writer(c.args, {}, c.writer);
        EXPECT_NE(run.exit_code, 0);
        ASSERT_EQ(run.lines.size(), 1u) << "nothing but the error";
        EXPECT_NE(run.err_line().find(c.says), std::string::npos) << run.err_line();
    }
    EXPECT_TRUE(slurp(dir / "file.img") == before);
}

// ---- As root, on loop devices ------------------------------------------------------

class WriterOnLoopDevice : public ::testing::Test {
protected:
    void SetUp() override {
        if (!is_root()) GTEST_SKIP() << "needs root for loop devices";
    }
    TempDir dir_;
};

std::string probe(const std::string& device, uint64_t offset, const char* tag) {
    std::string out;
    run_command({"blkid", "-p", "-O", std::to_string(offset), "-o", "value", "-s", tag, device}, &out);
    return out.substr(0, out.find('\n'));
}

// Each over a disk that held a GPT, whose backup header in the last sectors must not outlive
// the write; a disk size that is not a whole number of 4 KiB blocks ends that clearing without
// direct I/O. The size check passes first and puts back the blocks it tried.
TEST_F(WriterOnLoopDevice, EachSampleReadsBackAndIsRecognised) {
    const struct { const char *image, *table, *data_fs, *signatures; size_t disk_size; } cases[] = {
        {"uefi_fat32", "gpt", "vfat", "gpt\nPMBR\n", 64 * kMiB},
        {"uefi_exfat", "gpt", "exfat", "gpt\nPMBR\n", 64 * kMiB + 512},
        {"bios_fat32", "dos", "vfat", "dos\n", 64 * kMiB},
        {"bios_exfat", "dos", "exfat", "dos\n", 64 * kMiB + 512},
    };
    spit(dir_ / "gpt", "label: gpt\nsize=20MiB, type=L\ntype=L\n");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.image);
        std::string expected = gunzip(sample(c.image));
        fill_file(dir_ / "disk", c.disk_size, '\x5a');
        LoopDevice loop(dir_ / "disk", {});
        ASSERT_EQ(run_command({"sh", "-c", "sfdisk -q " + loop.path() + " <" + dir_ / "gpt"}), 0);
        WriterRun run = run_writer({sample(c.image), loop.path()});
        expect_complete_protocol(run, expected.size());
        auto checked = reports(run, WriterLine::Checked);  // first, and up to its total
        ASSERT_TRUE(run.lines.front().rfind("C 0 ", 0) == 0 && checked.back().done == checked.back().total);
        std::string disk = slurp(dir_ / "disk"), dump, signatures;
        EXPECT_TRUE(disk.substr(0, expected.size()) == expected);
        EXPECT_EQ(disk.find_first_not_of('\x5a', expected.size()), (c.disk_size - kMiB) / 4096 * 4096);
        EXPECT_EQ(disk.find_first_not_of('\0', c.disk_size - kMiB), std::string::npos);
        run_command({"sfdisk", "--dump", loop.path()}, &dump);
        run_command({"wipefs", "--no-act", "--noheadings", "--output", "TYPE", loop.path()}, &signatures);
        EXPECT_NE(dump.find(std::string("label: ") + c.table), std::string::npos) << dump;
        EXPECT_EQ(signatures, c.signatures);
        EXPECT_EQ(probe(loop.path(), 0, "PTTYPE"), c.table);
        EXPECT_EQ(probe(loop.path(), 1 * kMiB, "TYPE"), "vfat");
        EXPECT_EQ(probe(loop.path(), 9 * kMiB, "TYPE"), c.data_fs);
    }
}

TEST_F(WriterOnLoopDevice, RefusesUnsuitableDisksWithoutWriting) {
    uint64_t image_size = gunzip(sample("uefi_fat32")).size();
    struct Case {
        const char* name;
        size_t disk_size;
        std::vector<std::string> losetup_flags;
        bool hold_open_exclusively;
        std::vector<std::string> says;
        const char* writer = QM_WRITER_PATH;  // the installed one takes no loop device, with or without switches
        std::string image = sample("uefi_fat32");
    } cases[] = {
        {"too small", 32 * kMiB, {}, false, {"too small", std::to_string(32 * kMiB), std::to_string(image_size)}},
        {"too small for an image whose trailer says 1 MiB", 64 * kMiB, {}, false,
         {"too small", std::to_string(kOver4GiB)}, QM_WRITER_PATH, cached_zero_image(kOver4GiB)},
        {"read-only", 64 * kMiB, {"-r"}, false, {"write-protected", "lock switch"}},
        {"in use", 64 * kMiB, {}, true, {"busy"}},
        {"a loop device, to the installed writer", 64 * kMiB, {}, false, {"neither a USB drive nor an SD card"},
         QM_INSTALLED_WRITER_PATH},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        fill_file(dir_ / "disk", c.disk_size, '\x5a');
        std::string before = slurp(dir_ / "disk");
        LoopDevice loop(dir_ / "disk", c.losetup_flags);
        int holder = c.hold_open_exclusively ? open(loop.path().c_str(), O_RDONLY | O_EXCL) : -1;
        WriterRun run = run_writer({c.image, loop.path()}, {}, c.writer);
        if (holder >= 0) close(holder);
        EXPECT_NE(run.exit_code, 0);
        EXPECT_FALSE(run.done());
        for (const auto& word : c.says) EXPECT_NE(run.err_line().find(word), std::string::npos) << run.err_line();
        EXPECT_TRUE(slurp(dir_ / "disk") == before) << "the disk was written to";
    }
}

// Only mounts where the desktop puts removable drives are let go of; any other mount is
// someone's files and the disk is refused, still mounted.
TEST_F(WriterOnLoopDevice, UnmountsRemovableMediaMountsOnly) {
    std::string head = gunzip(sample("bios_exfat")).substr(0, kMiB);
    enum Use { Idle, FileOpen, HoldsTheImage, MountedElsewhere };
    const struct { const char* name; Use use; const char* says; } cases[] = {  // says nullptr: written
        {"idle", Idle, nullptr},
        {"a file open on it", FileOpen, "disk busy"},
        {"the image stored on it", HoldsTheImage, "copy the image"},
        {"mounted outside /media and /run/media", MountedElsewhere, "not where removable drives are mounted"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        fill_file(dir_ / "disk", 64 * kMiB, '\0');
        LoopDevice loop(dir_ / "disk", {});
        MediaFolder media;
        std::string mount_point = c.use == MountedElsewhere ? dir_ / "mnt" : media / "stick";
        std::filesystem::remove(mount_point);
        TestMount mounted(loop.path(), mount_point);
        if (!mounted.ok()) GTEST_SKIP() << "cannot mount ext4 on a loop device here";
        std::string image = sample("bios_exfat");
        if (c.use == HoldsTheImage) {
            image = mount_point + "/image.img.gz";
            spit(image, slurp(sample("bios_exfat")));
        }
        int held = c.use == FileOpen ? open((mount_point + "/held").c_str(), O_CREAT | O_RDWR, 0600) : -1;
        WriterRun run = run_writer({image, loop.path()});
        if (held >= 0) close(held);
        EXPECT_EQ(run.done(), !c.says) << run.err_line();
        if (c.says) {
            EXPECT_NE(run.err_line().find(c.says), std::string::npos) << run.err_line();
        }
        EXPECT_EQ(TestMount::is_mounted(mount_point), bool(c.says));
        EXPECT_EQ(read_prefix(loop.path(), kMiB) == head, !c.says);
    }
}

// The image is read with the rights of the user pkexec names: a file only root may read is
// refused, and nothing of it (such as the size its trailer gives) reaches the output.
TEST_F(WriterOnLoopDevice, ReadsTheImageWithTheInvokingUsersRights) {
    chmod(dir_.path().c_str(), 0755);
    for (auto [name, mode] : {std::pair{"secret.img.gz", 0600}, {"shared.img.gz", 0644}}) {
        std::filesystem::copy_file(sample("uefi_fat32"), dir_ / name);
        chmod((dir_ / name).c_str(), mode);
    }
    const std::string trailer_size = std::to_string(gunzip(sample("uefi_fat32")).size());
    fill_file(dir_ / "disk", 64 * kMiB, '\x5a');
    const std::string before = slurp(dir_ / "disk");
    LoopDevice loop(dir_ / "disk", {});
    const struct { const char *image, *pkexec_uid, *says; } cases[] = {  // says nullptr: written
        {"secret.img.gz", "PKEXEC_UID=65534", "Permission denied"},
        {"secret.img.gz", "PKEXEC_UID=nobody", "not a user id"},
        {"shared.img.gz", "PKEXEC_UID=65534", nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.image) + " " + c.pkexec_uid);
        WriterRun run = run_writer({dir_ / c.image, loop.path()}, {c.pkexec_uid});
        if (!c.says) {
            EXPECT_TRUE(run.done()) << run.err_line();
            continue;
        }
        ASSERT_EQ(run.lines.size(), 1u);
        EXPECT_NE(run.err_line().find(c.says), std::string::npos) << run.err_line();
        EXPECT_EQ(run.err_line().find(trailer_size), std::string::npos) << run.err_line();
        EXPECT_TRUE(slurp(dir_ / "disk") == before);
    }
}

// A disk named by its by-id link is written only while the link still leads to it: a link
// that has gone is a stick pulled (or swapped) since the user confirmed it.
TEST_F(WriterOnLoopDevice, ByIdNameWritesOnlyTheDiskItStillLeadsTo) {
    fill_file(dir_ / "disk", 64 * kMiB, '\x5a');
    LoopDevice loop(dir_ / "disk", {});
    const std::string loop_name = loop.path().substr(5), link_name = "qm-test-" + std::to_string(getpid());
    {
        ByIdLink link(link_name, loop_name);
        EXPECT_TRUE(run_writer({sample("bios_fat32"), link.path()}).done());
    }
    fill_file(dir_ / "disk", 64 * kMiB, '\x5a');
    const std::string before = slurp(dir_ / "disk");
    WriterRun gone = run_writer({sample("bios_fat32"), "/dev/disk/by-id/" + link_name});
    EXPECT_NE(gone.err_line().find("The drive changed since you confirmed it; choose it again."), std::string::npos)
        << gone.err_line();
    ByIdLink elsewhere(link_name, "../tmp");
    EXPECT_NE(run_writer({sample("bios_fat32"), elsewhere.path()}).err_line().find("does not lead to a disk"),
              std::string::npos);
    EXPECT_TRUE(slurp(dir_ / "disk") == before);
}

TEST_F(WriterOnLoopDevice, RefusesAPartition) {
    const std::string disk = gunzip(sample("bios_fat32"));
    spit(dir_ / "disk", disk);
    LoopDevice loop(dir_ / "disk", {"-P"});
    std::string partition = loop.path() + "p1";
    for (int i = 0; i < 20 && !std::filesystem::exists(partition); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    if (!std::filesystem::exists(partition))
        GTEST_SKIP() << "this kernel creates no partition devices for loop devices";
    WriterRun run = run_writer({sample("bios_fat32"), partition});
    EXPECT_NE(run.exit_code, 0);
    EXPECT_NE(run.err_line().find("partition"), std::string::npos) << run.err_line();
    EXPECT_TRUE(slurp(dir_ / "disk") == disk);
}

// The disk under / must be refused before anything else. The image does not exist, so
// even if the refusal were missing nothing could be written to the system disk.
TEST(WriterRefuses, TheDiskHoldingTheRunningSystem) {
    TempDir dir;
    struct stat root{};
    ASSERT_EQ(stat("/", &root), 0);
    std::string sys = "/sys/dev/block/" + std::to_string(major(root.st_dev)) + ":" + std::to_string(minor(root.st_dev));
    std::error_code ec;
    auto node = std::filesystem::canonical(sys, ec);
    if (ec) GTEST_SKIP() << "/ is not on a block device here";
    if (std::filesystem::exists(node / "partition")) node = node.parent_path();
    std::string disk = "/dev/" + node.filename().string();
    if (!std::filesystem::exists(disk)) GTEST_SKIP() << "no device node for " << disk;
    WriterRun run = run_writer({dir / "no-such-image.gz", disk});
    EXPECT_NE(run.exit_code, 0);
    EXPECT_NE(run.err_line().find("running system"), std::string::npos) << run.err_line();
}
