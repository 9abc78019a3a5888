// Reads the written bytes back from the medium and compares their hash with what was sent.
#pragma once
#include <cstdint>

#include "content_hash.h"
#include "target.h"

// `in` is the descriptor the image was written through, prepared with prepare_read_back.
void verify_written(const OpenTarget& in, uint64_t total, XXH128_hash_t expected);
