#include "verify.h"

#include <algorithm>
#include <cerrno>
#include <unistd.h>

#include "aligned_buffer.h"
#include "protocol.h"
#include "qm_core.h"
#include "writer_error.h"

namespace {

constexpr size_t kReadBytes = 4 * 1024 * 1024;

// O_DIRECT reads must be whole blocks; the device (or file) may end sooner, which is fine.
size_t read_some(int fd, AlignedBuffer& buffer, uint64_t offset, uint64_t remaining) {
    size_t want = static_cast<size_t>(std::min<uint64_t>(buffer.size(), remaining));
    want = (want + AlignedBuffer::kAlign - 1) / AlignedBuffer::kAlign * AlignedBuffer::kAlign;
    for (;;) {
        ssize_t n = pread(fd, buffer.data(), want, static_cast<off_t>(offset));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) throw WriterError(describe_io_error(errno, "read back"));
        if (n == 0) throw WriterError("the disk ended before the image did while reading it back; "
                                      "the drive may be failing, try another one");
        return static_cast<size_t>(std::min<uint64_t>(static_cast<uint64_t>(n), remaining));
    }
}

}  // namespace

void verify_written(const Target& target, uint64_t total, const std::array<uint8_t, 32>& expected) {
    OpenTarget in = open_for_reading(target);
    AlignedBuffer buffer(kReadBytes);
    ProgressLine progress('V', total);
    progress.start();
    sha256_ctx hash;
    sha256_init(&hash);
    for (uint64_t checked = 0; checked < total;) {
        size_t n = read_some(in.fd.get(), buffer, checked, total - checked);
        sha256_update(&hash, buffer.data(), n);
        checked += n;
        progress.update(checked);
    }
    progress.finish(total);
    std::array<uint8_t, 32> actual{};
    sha256_final(&hash, actual.data());
    if (actual != expected)
        throw WriterError("the data read back from the disk differs from the image: the drive may be "
                          "failing or be fake (smaller than it claims); try another drive");
}
