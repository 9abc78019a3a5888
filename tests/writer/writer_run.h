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

WriterRun run_writer(const std::vector<std::string>& args);

// Starts the writer and kills it outright once it reports `bytes` written but not all;
// false when it finished or failed before that point.
bool kill_writer_midway(const std::vector<std::string>& args, uint64_t bytes);

// Writes a gzip file of `head` followed by `zero_bytes` zeros.
void write_gzip_with_zero_tail(const std::string& path, const std::string& head, uint64_t zero_bytes);

// Runs a command without a shell; returns its exit code and, if asked, its stdout.
int run_command(const std::vector<std::string>& argv, std::string* out = nullptr);

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
