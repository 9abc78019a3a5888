// SHA-256 of data and of open files, on the core's hashing (the processor's SHA instructions
// when it has them).
#pragma once
#include <sys/types.h>

#include <QString>
#include <cstddef>
#include <optional>

#include "qm_core.h"

class Sha256 {
public:
    Sha256() { qm_sha256_init(&ctx_); }
    void add(const void* data, size_t len) { qm_sha256_update(&ctx_, data, len); }
    // 64 lower-case hex digits; call once.
    QString hex();

private:
    qm_sha256_ctx ctx_;
};

namespace FileHash {
// pread that goes on after interruptions; what pread returns otherwise.
ssize_t preadFully(int fd, char* buf, size_t len, off_t at);
// Hash of everything behind fd from its start, read by offset (the descriptor's position is
// left alone); none on a read error.
std::optional<QString> ofDescriptor(int fd, size_t chunk = 1 << 16);
}  // namespace FileHash
