// Linux can flush one file system alone, which spares the user's other disks.
#include <unistd.h>

#include "disk_flush.h"

namespace DiskFlush {

void fileSystemOf(int fd) { ::syncfs(fd); }

}  // namespace DiskFlush
