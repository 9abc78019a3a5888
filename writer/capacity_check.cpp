#include "capacity_check.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

#include "aligned_buffer.h"
#include "protocol.h"
#include "write_image.h"
#include "writer_error.h"

namespace {

// 16 KiB blocks: on a 64 GB stick 77 places, 4 passes of 1.2 MiB and 308 requests in all,
// a few seconds even where every small write costs a flash erase.
constexpr size_t kBlock = 16 * 1024;
constexpr uint64_t kGridPoints = 64;
constexpr size_t kHeader = 16;  // the run's nonce, then the block's index

// Every multiple of a power-of-two step, every power of two below the step, and the last
// block. Wrapped at a power of two, each of these places past the real size lands on
// another of them, so the wrap shows as a block in the wrong place.
std::vector<uint64_t> probe_offsets(uint64_t size) {
    std::vector<uint64_t> offsets;
    if (size < kBlock) return offsets;
    uint64_t step = kBlock;
    while (step * kGridPoints < size) step *= 2;
    for (uint64_t p = 0; p + kBlock <= size; p += step) offsets.push_back(p);
    for (uint64_t p = kBlock; p < step && p + kBlock <= size; p *= 2) offsets.push_back(p);
    offsets.push_back((size - kBlock) / AlignedBuffer::kAlign * AlignedBuffer::kAlign);
    std::sort(offsets.begin(), offsets.end());
    offsets.erase(std::unique(offsets.begin(), offsets.end()), offsets.end());
    return offsets;
}

void fill_block(uint8_t* block, uint64_t nonce, uint64_t index) {
    std::memcpy(block, &nonce, 8);
    std::memcpy(block + 8, &index, 8);
    uint64_t state = nonce ^ (index * 0x9e3779b97f4a7c15ull);
    for (size_t i = kHeader; i < kBlock; i += 8) {  // splitmix64
        uint64_t z = (state += 0x9e3779b97f4a7c15ull);
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
        z ^= z >> 31;
        std::memcpy(block + i, &z, 8);
    }
}

enum class Found { Own, Other, Nothing };

Found what_is_in(const uint8_t* block, uint64_t nonce, uint64_t index, uint64_t count, uint8_t* scratch,
                 uint64_t* theirs) {
    fill_block(scratch, nonce, index);
    if (std::memcmp(block, scratch, kBlock) == 0) return Found::Own;
    uint64_t their_nonce = 0;
    std::memcpy(&their_nonce, block, 8);
    std::memcpy(theirs, block + 8, 8);
    if (their_nonce != nonce || *theirs >= count || *theirs == index) return Found::Nothing;
    fill_block(scratch, nonce, *theirs);
    return std::memcmp(block, scratch, kBlock) == 0 ? Found::Other : Found::Nothing;
}

std::string decimal_size(uint64_t bytes) {
    char text[32];
    if (bytes >= 1000000000)
        std::snprintf(text, sizeof text, "%.1f GB", static_cast<double>(bytes) / 1e9);
    else
        std::snprintf(text, sizeof text, "%.0f MB", static_cast<double>(bytes) / 1e6);
    return text;
}

class TargetDisk : public ProbedDisk {
public:
    TargetDisk(const Target& target, OpenTarget& out) : target_(target), out_(out) {}
    void read(uint8_t* data, size_t length, uint64_t offset) override {
        while (length > 0) {
            ssize_t n = pread(out_.fd.get(), data, length, static_cast<off_t>(offset));
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) throw WriterError(describe_io_error(errno, "read"));
            if (n == 0) throw WriterError(describe_io_error(EIO, "read"));
            data += n;
            length -= static_cast<size_t>(n);
            offset += static_cast<uint64_t>(n);
        }
    }
    void write(const uint8_t* data, size_t length, uint64_t offset) override {
        write_fully(out_, data, length, offset);
    }
    void flush() override {
        flush_to_disk(out_);
        prepare_read_back(target_, out_);
    }

private:
    const Target& target_;
    OpenTarget& out_;
};

}  // namespace

void check_capacity(ProbedDisk& disk, uint64_t size) {
    const std::vector<uint64_t> offsets = probe_offsets(size);
    const uint64_t count = offsets.size();
    if (count == 0) return;
    ProgressLine progress('C', 4 * count);
    progress.start();
    uint64_t done = 0;
    auto step = [&] { progress.update(++done); };

    AlignedBuffer before(count * kBlock), block(kBlock), scratch(kBlock);
    for (uint64_t i = 0; i < count; ++i, step()) disk.read(before.data() + i * kBlock, kBlock, offsets[i]);
    const uint64_t nonce = (static_cast<uint64_t>(std::random_device{}()) << 32) ^ std::random_device{}();
    for (uint64_t i = 0; i < count; ++i, step()) {
        fill_block(block.data(), nonce, i);
        disk.write(block.data(), kBlock, offsets[i]);
    }
    disk.flush();
    // Which of the places a wrap folds together keeps its block depends on the order the
    // disk's cache writes them out, but any two lie a multiple of the wrap apart.
    uint64_t wrap = size, lost = size;
    for (uint64_t i = 0; i < count; ++i, step()) {
        disk.read(block.data(), kBlock, offsets[i]);
        uint64_t theirs = i;
        Found found = what_is_in(block.data(), nonce, i, count, scratch.data(), &theirs);
        if (found == Found::Other) {
            uint64_t apart = offsets[std::max(i, theirs)] - offsets[std::min(i, theirs)];
            wrap = std::min(wrap, uint64_t{1} << std::countr_zero(apart));
        }
        if (found == Found::Nothing) lost = std::min(lost, offsets[i]);
    }
    for (uint64_t i = 0; i < count; ++i, step()) disk.write(before.data() + i * kBlock, kBlock, offsets[i]);
    disk.flush();
    progress.finish(done);
    if (wrap == size && lost == size) return;

    uint64_t works = wrap;  // or the end of the highest block that held, below the first lost
    if (lost < wrap) {
        works = 0;
        for (uint64_t offset : offsets)
            if (offset < lost) works = offset + kBlock;
    }
    throw WriterError("This drive is not as large as it claims: only about " + decimal_size(works) + " of its " +
                      decimal_size(size) + " work (what is written past that " +
                      (lost < wrap ? "is lost" : "lands on earlier data") +
                      "). Writing on it would lose work; use another drive.");
}

void check_capacity(const Target& target, OpenTarget& out) {
    if (target.regular_file) return;
    TargetDisk disk(target, out);
    check_capacity(disk, target.size);
}
