// Internal to the core: opening files that live on a drive. A drive is outside data: any of its
// files may be a symbolic link to the user's own files, a FIFO that never delivers, or grow
// while it is read, so every open refuses links at the last step, never blocks, and accepts
// regular files only.
#pragma once
#include <cstddef>
#include <cstdint>

namespace qm::drive_files {

// Descriptor of the regular file `name` under the folder `dir_fd` (AT_FDCWD: the current folder),
// or -1. Refused: a link at the last step, anything but a regular file, more than `limit` bytes.
// `size` receives the length seen through the descriptor.
int open_regular(int dir_fd, const char* name, size_t limit, size_t* size);

// Reads exactly `size` bytes; false on an error, a shorter file, or a file that has grown.
bool read_exact(int fd, uint8_t* buf, size_t size);

// Reads a whole regular file of at most `cap` bytes into buf; its length, or -1.
long read_regular(int dir_fd, const char* name, uint8_t* buf, size_t cap);

// Descriptor of the folder `name` under `dir_fd` when it is a real folder, not a link; else -1.
int open_folder(int dir_fd, const char* name);

// Writes all of data; false on an error.
bool write_all(int fd, const void* data, size_t len);

// Opens a regular file for writing with `flags` (the access mode and O_TRUNC, O_APPEND, O_CREAT...),
// without following a link or blocking on a FIFO; -1 when it is anything but a regular file.
int open_regular_for_writing(const char* path, int flags, int mode);

}  // namespace qm::drive_files
