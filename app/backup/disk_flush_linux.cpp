// Linux can flush one file system, or one file's data, alone, which spares the user's other disks.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include "disk_flush.h"

namespace DiskFlush {

void fileSystemOf(int fd) { ::syncfs(fd); }

bool dataOf(int fd) {
    return ::sync_file_range(fd, 0, 0,
                             SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER) == 0;
}

std::optional<bool> renameNoReplace(int dirFd, const char* from, const char* to) {
    if (::renameat2(dirFd, from, dirFd, to, RENAME_NOREPLACE) == 0) return true;
    if (errno == EINVAL || errno == ENOSYS) return std::nullopt;  // a file system without the flag
    return false;
}

}  // namespace DiskFlush
