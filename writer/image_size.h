// The uncompressed size of a gzip image, known before any byte goes to the disk.
#pragma once
#include <cstdint>

#include "inflate.h"

struct ImageSize {
    uint64_t compressed;
    uint64_t uncompressed;
};

// Reads the image from its start and leaves the descriptor there again.
ImageSize measure_image(int fd, InflateEngine engine);

// What the gzip trailer alone says: the size itself, or for images that may exceed 4 GiB
// a lower bound. Lets a disk that is too small be refused before a long counting pass.
uint64_t smallest_possible_size(int fd);
