// Counterfeit sticks report more than their flash holds. Past the real size their controller
// drops the high address bits, so writes wrap onto earlier data, or lets writes vanish: the
// image fits and verifies, and what is written on the stick later is lost. Before writing,
// blocks of distinct content spread over the whole claimed size show either.
#pragma once
#include <cstddef>
#include <cstdint>

#include "target.h"

// What the check needs of a disk: blocks read and written at 4 KiB-aligned offsets.
class ProbedDisk {
public:
    virtual ~ProbedDisk() = default;
    virtual void read(uint8_t* data, size_t length, uint64_t offset) = 0;
    virtual void write(const uint8_t* data, size_t length, uint64_t offset) = 0;
    // Puts what was written on the medium; reads after it come from there, not from a cache.
    virtual void flush() = 0;
};

// Writes the blocks, reads them back, and puts back what they held before, whether the disk
// passes or not. Reports "C done total" lines. Throws WriterError saying how much of `size`
// works when a block is lost or turns up where another was written.
void check_capacity(ProbedDisk& disk, uint64_t size);

// The disk behind `out`; a regular file (the test build's) has no size to check.
void check_capacity(const Target& target, OpenTarget& out);
