#include "image_size.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "aligned_buffer.h"
#include "writer_error.h"

namespace {

// Deflate cannot expand data more than 1032 to 1 (one 258-byte match per ~2 bits).
constexpr uint64_t kMaxDeflateRatio = 1032;
constexpr uint64_t kTrailerModulus = 1ull << 32;
constexpr uint64_t kGzipOverhead = 18;  // smallest header + trailer

uint32_t read_trailer_isize(int fd, uint64_t file_size) {
    uint8_t b[4];
    if (pread(fd, b, 4, static_cast<off_t>(file_size - 4)) != 4)
        throw WriterError(std::string("cannot read the image: ") + std::strerror(errno));
    return uint32_t(b[0]) | uint32_t(b[1]) << 8 | uint32_t(b[2]) << 16 | uint32_t(b[3]) << 24;
}

uint64_t count_inflated_bytes(int fd, InflateEngine engine) {
    auto inflater = make_inflater(engine, fd);
    AlignedBuffer scratch(4 * kMiB);
    uint64_t total = 0;
    while (size_t n = inflater->read(scratch.data(), scratch.size())) total += n;
    return total;
}

void rewind(int fd) {
    if (lseek(fd, 0, SEEK_SET) != 0) throw WriterError(std::string("cannot read the image: ") + std::strerror(errno));
}

uint64_t compressed_size(int fd) {
    struct stat st{};
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) throw WriterError("the image is not a regular file");
    uint64_t size = static_cast<uint64_t>(st.st_size);
    if (size < kGzipOverhead) throw_truncated_image();
    return size;
}

// The largest image the compressed bytes could decode to.
uint64_t largest_possible(uint64_t compressed) { return (compressed - kGzipOverhead) * kMaxDeflateRatio; }

// A trailer that claims more than the data could ever hold is damaged, whatever a disk's size.
uint32_t checked_trailer_isize(int fd, uint64_t compressed) {
    uint32_t isize = read_trailer_isize(fd, compressed);
    if (isize > largest_possible(compressed))
        throw_corrupt_image("its trailer claims " + std::to_string(isize) + " bytes, more than " +
                            std::to_string(compressed) + " compressed bytes can hold");
    return isize;
}

}  // namespace

uint64_t smallest_possible_size(int fd) { return checked_trailer_isize(fd, compressed_size(fd)); }

// The trailer keeps the size modulo 4 GiB. While the compressed size times the largest
// possible deflate ratio stays under 4 GiB the trailer is the size itself. Above that the
// size could be the trailer value plus any multiple of 4 GiB, so the image is decoded once
// without writing and its bytes counted: slower, but the only rule that is always right
// (and it catches a corrupt image before the disk is touched).
ImageSize measure_image(int fd, InflateEngine engine) {
    uint64_t compressed = compressed_size(fd);
    if (largest_possible(compressed) < kTrailerModulus) return {compressed, checked_trailer_isize(fd, compressed)};
    rewind(fd);
    ImageSize size{compressed, count_inflated_bytes(fd, engine)};
    rewind(fd);
    return size;
}
