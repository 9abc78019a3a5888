// What the read-back compares: proof that the disk holds the bytes written, against a drive
// that loses or misplaces data, not against an adversary (who would control the image anyway).
// XXH3 runs many times faster than any disk, so the disk sets the pace of writing and reading back.
#pragma once
#include <cstddef>
#include <cstdint>

#define XXH_STATIC_LINKING_ONLY  // the state on the stack, no allocation
#include <xxhash.h>

class ContentHash {
public:
    ContentHash() {
        XXH3_INITSTATE(&state_);
        XXH3_128bits_reset(&state_);
    }
    void update(const uint8_t* data, size_t length) { XXH3_128bits_update(&state_, data, length); }
    XXH128_hash_t digest() const { return XXH3_128bits_digest(&state_); }

private:
    XXH3_state_t state_;
};
