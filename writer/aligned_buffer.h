// Heap memory aligned for O_DIRECT transfers (4 KiB covers every logical block size in use).
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

class AlignedBuffer {
public:
    static constexpr size_t kAlign = 4096;

    explicit AlignedBuffer(size_t size) : size_(size) {
        data_ = static_cast<uint8_t*>(std::aligned_alloc(kAlign, (size + kAlign - 1) / kAlign * kAlign));
        if (!data_) throw std::bad_alloc();
        std::memset(data_, 0, size);
    }
    ~AlignedBuffer() { std::free(data_); }
    AlignedBuffer(const AlignedBuffer&) = delete;
    AlignedBuffer& operator=(const AlignedBuffer&) = delete;

    uint8_t* data() { return data_; }
    const uint8_t* data() const { return data_; }
    size_t size() const { return size_; }

private:
    uint8_t* data_;
    size_t size_;
};
