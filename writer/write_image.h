// Streams the decoded image onto the target in an order that never leaves a disk that
// looks bootable, or like its old self, after a failure part way.
#pragma once
#include <cstdint>

#include "content_hash.h"
#include "inflate.h"
#include "protocol.h"
#include "target.h"

struct WrittenImage {
    uint64_t bytes = 0;
    XXH128_hash_t hash{};
};

WrittenImage write_image(const Target& target, OpenTarget& out, Inflater& inflater, uint64_t total,
                         ProgressLine& progress);

// Writes all of `data` at `offset`, dropping O_DIRECT for a tail that is not block-aligned.
void write_fully(OpenTarget& out, const uint8_t* data, size_t length, uint64_t offset);
void flush_to_disk(OpenTarget& out);
