#include <zlib.h>

#include "inflate.h"
#include "writer_error.h"

namespace {

class ZlibInflater : public Inflater {
public:
    explicit ZlibInflater(int fd) : in_(fd) {
        if (inflateInit2(&zs_, 16 + MAX_WBITS) != Z_OK) throw WriterError("out of memory");
    }
    ~ZlibInflater() override { inflateEnd(&zs_); }

    size_t read(uint8_t* out, size_t capacity) override {
        size_t produced = 0;
        while (produced < capacity && !finished_) {
            if (in_.available() == 0 && !in_.ensure(1)) throw_truncated_image();
            zs_.next_in = const_cast<Bytef*>(in_.data());
            zs_.avail_in = static_cast<uInt>(in_.available());
            zs_.next_out = out + produced;
            zs_.avail_out = static_cast<uInt>(capacity - produced);
            int rc = inflate(&zs_, Z_NO_FLUSH);
            in_.consume(in_.available() - zs_.avail_in);
            produced = capacity - zs_.avail_out;
            if (rc == Z_STREAM_END) next_member();
            else if (rc != Z_OK && rc != Z_BUF_ERROR) throw_corrupt_image(zs_.msg ? zs_.msg : "bad data");
        }
        return produced;
    }

private:
    // gzip allows several members back to back; anything else after a member is ignored,
    // as gzip itself does.
    void next_member() {
        if (in_.starts_new_member()) inflateReset(&zs_);
        else finished_ = true;
    }

    CompressedInput in_;
    z_stream zs_{};
    bool finished_ = false;
};

}  // namespace

std::unique_ptr<Inflater> make_zlib_inflater(int fd) { return std::make_unique<ZlibInflater>(fd); }
