// The disk (or, for tests, regular file) the image goes to: checks before writing,
// unmounting, and opening for the write and for the read-back.
#pragma once
#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

#include "file_descriptor.h"

struct Target {
    std::string path;
    bool regular_file = false;
    uint64_t size = 0;               // bytes; 0 for a regular file, which grows as needed
    std::string disk_name;           // e.g. "sdb"; empty for a regular file
    std::vector<dev_t> devices;      // the disk and each of its partitions
};

// Everything that can be known without opening the disk for writing. Throws WriterError.
Target inspect_target(const std::string& path, bool allow_regular_file);
void refuse_smaller_than(const Target& target, uint64_t image_bytes);
void refuse_image_on_target(const Target& target, int image_fd);
void unmount_partitions(const Target& target);

struct OpenTarget {
    FileDescriptor fd;
    bool direct = false;             // O_DIRECT in effect
};
OpenTarget open_for_writing(const Target& target);
OpenTarget open_for_reading(const Target& target);  // bypasses the page cache one way or another
void clear_direct_io(OpenTarget& open);             // for a tail that is not block-aligned

// A text telling the user what went wrong with a write or read and what to try next.
std::string describe_io_error(int err, const char* action);
