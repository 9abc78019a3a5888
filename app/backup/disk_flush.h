// Flushing what was written through to the disk, and renaming without replacing: one file per
// platform.
#pragma once
#include <optional>

namespace DiskFlush {
// Writes out everything pending on the file system holding fd (at least), and waits for it.
void fileSystemOf(int fd);
// Writes out fd's data (its name and size may wait) and waits for it; false, errno set, on failure.
bool dataOf(int fd);
// Renames from to to inside dirFd unless to exists (then false, errno EEXIST), in one step; none
// when neither the platform nor the file system can do that.
std::optional<bool> renameNoReplace(int dirFd, const char* from, const char* to);
}  // namespace DiskFlush
