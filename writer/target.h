// The disk (or, in the test build, loop device or regular file) the image goes to. It is
// opened once by a name that cannot be redirected, every check is made on what was opened,
// and the write and read-back use a descriptor proven to be that same device.
#pragma once
#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

#include "file_descriptor.h"

// What a build of the writer accepts as a target. The installed writer takes only disks.
enum class TargetKinds { Disks, DisksLoopDevicesAndFiles };

struct Target {
    std::string path;                // as given, for messages
    bool regular_file = false;
    uint64_t size = 0;               // bytes; 0 for a regular file, which grows as needed
    std::string disk_name;           // e.g. "sdb"; empty for a regular file
    std::string node;                // "/dev/" + the kernel's name, as opened
    dev_t device = 0;                // the disk's device number
    std::vector<dev_t> devices;      // the disk, its partitions and what is built on them
    std::vector<std::string> mount_points;  // of any of `devices`, all under the removable-media places
    std::string by_id_link;          // the /dev/disk/by-id link it was named by, if any
    FileDescriptor fd;               // what the checks looked at: read-only (read-write for a file)
};

// Opens and checks the target. Throws WriterError.
Target open_target(const std::string& path, TargetKinds kinds);
void refuse_smaller_than(const Target& target, uint64_t image_bytes);
void refuse_image_on_target(const Target& target, int image_fd);
void unmount_partitions(const Target& target);

struct OpenTarget {
    FileDescriptor fd;
    bool direct = false;             // O_DIRECT in effect
};
// Read-write and, for a disk, exclusive: nothing can mount it while the image goes down.
OpenTarget open_for_writing(const Target& target);
// The disk is still the one that was confirmed: a by-id link that has gone or moved means
// the stick was pulled or swapped. Called before the first byte is written.
void refuse_changed_disk(const Target& target);
void prepare_read_back(const Target& target, OpenTarget& open);  // bypasses the page cache
void clear_direct_io(OpenTarget& open);             // for a tail that is not block-aligned
void restore_direct_io(OpenTarget& open);           // after such a tail, where O_DIRECT works

// A text telling the user what went wrong with a write or read and what to try next.
std::string describe_io_error(int err, const char* action);

inline constexpr const char* kDriveChanged = "The drive changed since you confirmed it; choose it again.";
