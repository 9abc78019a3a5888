// Streaming gzip decoders over a file descriptor. Both engines decode the same input to
// the same bytes; they differ only in speed.
#pragma once
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

enum class InflateEngine { Zlib, Isal };

std::optional<InflateEngine> parse_engine(const std::string& name);

class Inflater {
public:
    virtual ~Inflater() = default;
    // Fills `out` completely unless the image ends first; returns the bytes produced,
    // 0 at the end. Throws WriterError when the image is corrupt or truncated.
    virtual size_t read(uint8_t* out, size_t capacity) = 0;
};

std::unique_ptr<Inflater> make_inflater(InflateEngine engine, int fd);

// Compressed bytes read ahead from the image file.
class CompressedInput {
public:
    explicit CompressedInput(int fd);
    const uint8_t* data() const { return buf_.data() + pos_; }
    size_t available() const { return len_ - pos_; }
    void consume(size_t n) { pos_ += n; }
    // Makes at least `n` bytes available unless the file ends; false when it cannot.
    bool ensure(size_t n);
    bool starts_new_member();  // the next bytes are a gzip header

private:
    int fd_;
    std::vector<uint8_t> buf_;
    size_t pos_ = 0;
    size_t len_ = 0;
};

[[noreturn]] void throw_corrupt_image(const std::string& detail);
[[noreturn]] void throw_truncated_image();
