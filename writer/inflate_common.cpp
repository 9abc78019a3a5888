#include "inflate.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

#include "writer_error.h"

std::optional<InflateEngine> parse_engine(const std::string& name) {
    if (name == "zlib") return InflateEngine::Zlib;
    if (name == "isal") return InflateEngine::Isal;
    return std::nullopt;
}

CompressedInput::CompressedInput(int fd) : fd_(fd), buf_(1024 * 1024) {}

bool CompressedInput::ensure(size_t n) {
    if (available() >= n) return true;
    std::memmove(buf_.data(), buf_.data() + pos_, available());
    len_ = available();
    pos_ = 0;
    while (len_ < n) {
        ssize_t got = ::read(fd_, buf_.data() + len_, buf_.size() - len_);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) throw WriterError(std::string("cannot read the image: ") + std::strerror(errno));
        if (got == 0) return false;
        len_ += static_cast<size_t>(got);
    }
    return true;
}

bool CompressedInput::starts_new_member() {
    return ensure(2) && data()[0] == 0x1f && data()[1] == 0x8b;
}

void throw_corrupt_image(const std::string& detail) {
    throw WriterError("the image is corrupt (" + detail +
                      "); download it again and check it before writing");
}

void throw_truncated_image() {
    throw WriterError("the image is truncated (it ends in the middle of the compressed data); "
                      "download it again, the copy is incomplete");
}

std::unique_ptr<Inflater> make_zlib_inflater(int fd);
std::unique_ptr<Inflater> make_isal_inflater(int fd);

std::unique_ptr<Inflater> make_inflater(InflateEngine engine, int fd) {
    return engine == InflateEngine::Isal ? make_isal_inflater(fd) : make_zlib_inflater(fd);
}
