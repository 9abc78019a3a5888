// Flushing what was written through to the disk, one file per platform.
#pragma once

namespace DiskFlush {
// Writes out everything pending on the file system holding fd (at least), and waits for it.
void fileSystemOf(int fd);
}  // namespace DiskFlush
