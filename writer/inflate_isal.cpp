#include <isa-l/igzip_lib.h>

#include "inflate.h"
#include "writer_error.h"

namespace {

const char* describe_isal_error(int rc) {
    switch (rc) {
    case ISAL_INCORRECT_CHECKSUM: return "checksum mismatch";
    case ISAL_INVALID_WRAPPER: return "not a gzip file";
    case ISAL_UNSUPPORTED_METHOD: return "unsupported compression method";
    default: return "invalid compressed data";
    }
}

class IsalInflater : public Inflater {
public:
    explicit IsalInflater(int fd) : in_(fd), state_(std::make_unique<inflate_state>()) { reset(); }

    size_t read(uint8_t* out, size_t capacity) override {
        size_t produced = 0;
        while (produced < capacity && !finished_) {
            if (in_.available() == 0 && !in_.ensure(1)) throw_truncated_image();
            state_->next_in = const_cast<uint8_t*>(in_.data());
            state_->avail_in = static_cast<uint32_t>(in_.available());
            state_->next_out = out + produced;
            state_->avail_out = static_cast<uint32_t>(capacity - produced);
            int rc = isal_inflate(state_.get());
            in_.consume(in_.available() - state_->avail_in);
            produced = capacity - state_->avail_out;
            if (rc < 0 || rc == ISAL_NEED_DICT) throw_corrupt_image(describe_isal_error(rc));
            if (state_->block_state == ISAL_BLOCK_FINISH) next_member();
        }
        return produced;
    }

private:
    void reset() {
        isal_inflate_init(state_.get());
        state_->crc_flag = ISAL_GZIP;  // parse the header, check CRC and size in the trailer
    }
    void next_member() {
        if (in_.starts_new_member()) reset();
        else finished_ = true;
    }

    CompressedInput in_;
    std::unique_ptr<inflate_state> state_;  // large; kept off the stack
    bool finished_ = false;
};

}  // namespace

std::unique_ptr<Inflater> make_isal_inflater(int fd) { return std::make_unique<IsalInflater>(fd); }
