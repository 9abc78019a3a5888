// macOS has no per-file-system flush: every file system is flushed.
#include <unistd.h>

#include "disk_flush.h"

namespace DiskFlush {

void fileSystemOf(int) { ::sync(); }

bool dataOf(int fd) { return ::fdatasync(fd) == 0; }

std::optional<bool> renameNoReplace(int, const char*, const char*) { return std::nullopt; }

}  // namespace DiskFlush
