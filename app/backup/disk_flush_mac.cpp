// macOS has no per-file-system flush: every file system is flushed.
#include <unistd.h>

#include "disk_flush.h"

namespace DiskFlush {

void fileSystemOf(int) { ::sync(); }

}  // namespace DiskFlush
