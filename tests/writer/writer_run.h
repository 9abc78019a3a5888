// Helpers for the writer tests: running the writer and shell tools, and loop devices.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

struct WriterRun {
    int exit_code = -1;
    std::vector<std::string> lines;  // stdout, one entry per line
    std::string err_line() const;    // the ERR line, or ""
    bool done() const { return !lines.empty() && lines.back() == "DONE"; }
};

// qm-writer-test, which also takes loop devices and files, or the writer as it lies in the app's resources
// (QM_INSTALLED_WRITER_PATH); `env` adds "NAME=value" entries.
WriterRun run_writer(const std::vector<std::string>& args, const std::vector<std::string>& env = {},
                     const char* writer = QM_WRITER_PATH);

// Starts the writer and kills it outright once it reports `bytes` written but not all: the
// total it reported then, or 0 when it finished or failed before that point.
uint64_t kill_writer_midway(const std::vector<std::string>& args, uint64_t bytes);

// Runs a command without a shell, `env` added; returns its exit code and, if asked, its stdout.
int run_command(const std::vector<std::string>& argv, std::string* out = nullptr,
                const std::vector<std::string>& env = {});

std::string gunzip(const std::string& gz_path);
std::string read_prefix(const std::string& path, size_t bytes);
void fill_file(const std::string& path, size_t bytes, char value);

// A loop device over a file of its own, detached again on every way out of a test.
class LoopDevice {
public:
    LoopDevice(const std::string& backing_file, const std::vector<std::string>& losetup_flags);
    ~LoopDevice();
    LoopDevice(const LoopDevice&) = delete;
    LoopDevice& operator=(const LoopDevice&) = delete;
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

// A folder of the test's own under /run/media, where the desktop mounts removable drives;
// /run/media itself goes again if the test made it.
class MediaFolder {
public:
    MediaFolder();
    ~MediaFolder();
    MediaFolder(const MediaFolder&) = delete;
    MediaFolder& operator=(const MediaFolder&) = delete;
    std::string operator/(const std::string& rel) const { return path_ + "/" + rel; }

private:
    bool made_parent_ = false;
    std::string path_;
};

// A udev-style link /dev/disk/by-id/NAME -> ../../DEVICE of the test's own, with the folders
// it had to make, all removed again.
class ByIdLink {
public:
    ByIdLink(const std::string& name, const std::string& device_name);
    ~ByIdLink();
    ByIdLink(const ByIdLink&) = delete;
    ByIdLink& operator=(const ByIdLink&) = delete;
    const std::string& path() const { return path_; }

private:
    std::vector<std::string> made_;
    std::string path_;
};

// A file system mounted for a test, unmounted again on every way out unless the writer
// already did it.
class TestMount {
public:
    TestMount(const std::string& device, const std::string& mount_point);  // ext4
    ~TestMount();
    TestMount(const TestMount&) = delete;
    TestMount& operator=(const TestMount&) = delete;
    bool ok() const { return ok_; }
    static bool is_mounted(const std::string& mount_point);

private:
    std::string mount_point_;
    bool ok_ = false;
};
