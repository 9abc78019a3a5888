// The uncompressed size of a gzip image, known before any byte goes to the disk.
#pragma once
#include <cstdint>
#include <string>

#include "inflate.h"

struct ImageSize {
    uint64_t compressed;
    uint64_t uncompressed;
};

ImageSize measure_image(const std::string& path, InflateEngine engine);
