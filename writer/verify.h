// Reads the written bytes back from the medium and compares their hash with what was sent.
#pragma once
#include <array>
#include <cstdint>

#include "target.h"

void verify_written(const Target& target, uint64_t total, const std::array<uint8_t, 32>& expected);
