#include "file_hash.h"

#include <unistd.h>

#include <QByteArray>
#include <cerrno>
#include <vector>

QString Sha256::hex() {
    uint8_t digest[32];
    qm_sha256_final(&ctx_, digest);
    return QString::fromLatin1(QByteArray(reinterpret_cast<const char*>(digest), 32).toHex());
}

namespace FileHash {

ssize_t preadFully(int fd, char* buf, size_t len, off_t at) {
    ssize_t n;
    do n = ::pread(fd, buf, len, at);
    while (n < 0 && errno == EINTR);
    return n;
}

std::optional<QString> ofDescriptor(int fd, size_t chunk) {
    std::vector<char> buf(chunk);
    Sha256 sha;
    for (off_t at = 0;;) {
        ssize_t n = preadFully(fd, buf.data(), buf.size(), at);
        if (n < 0) return std::nullopt;
        if (n == 0) return sha.hex();
        sha.add(buf.data(), static_cast<size_t>(n));
        at += n;
    }
}

}  // namespace FileHash
