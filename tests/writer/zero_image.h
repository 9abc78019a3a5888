// Gzip images that are mostly zeros: large when decoded, a few MB on the disk.
#pragma once
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>

// Writes a gzip file of `head` followed by `zero_bytes` zeros. Level 1: zeros compress as well
// at it, many times faster.
inline void write_gzip_with_zero_tail(const std::string& path, const std::string& head, uint64_t zero_bytes) {
    gzFile gz = gzopen(path.c_str(), "wb1");
    if (!gz) throw std::runtime_error("gzopen " + path);
    gzwrite(gz, head.data(), static_cast<unsigned>(head.size()));
    std::string zeros(1 << 20, '\0');
    for (uint64_t done = 0; done < zero_bytes; done += zeros.size())
        gzwrite(gz, zeros.data(), static_cast<unsigned>(std::min<uint64_t>(zeros.size(), zero_bytes - done)));
    if (gzclose(gz) != Z_OK) throw std::runtime_error("gzclose " + path);
}

// An image of `bytes` zeros, made once and kept in /tmp by its size: one over 4 GiB takes
// seconds to compress.
inline std::string cached_zero_image(uint64_t bytes) {
    const std::string path = "/tmp/qm-test-zeros-" + std::to_string(bytes) + ".img.gz";
    if (access(path.c_str(), R_OK) == 0) return path;
    const std::string part = path + "." + std::to_string(getpid());
    write_gzip_with_zero_tail(part, "", bytes);
    if (std::rename(part.c_str(), path.c_str()) != 0) throw std::runtime_error("rename " + part);
    return path;
}

// 4 GiB and 1 MiB: its gzip trailer, which keeps the size modulo 4 GiB, says 1 MiB.
inline constexpr uint64_t kOver4GiB = (uint64_t{4} << 30) + (uint64_t{1} << 20);
