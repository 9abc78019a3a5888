// A few large aligned buffers passed between the inflating thread and the writing
// thread: the inflater fills free buffers, the writer drains full ones and the hasher
// frees them, so whichever is slowest sets the pace and memory stays bounded.
#pragma once
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <vector>

#include "aligned_buffer.h"

struct Chunk {
    AlignedBuffer* buffer = nullptr;  // nullptr marks the end of the image
    size_t length = 0;
};

class ChunkQueue {
public:
    ChunkQueue(size_t count, size_t buffer_size) {
        for (size_t i = 0; i < count; ++i) {
            buffers_.push_back(std::make_unique<AlignedBuffer>(buffer_size));
            free_.push_back(buffers_.back().get());
        }
    }

    // Producer side. Returns nullptr once the consumer has stopped.
    AlignedBuffer* take_free() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return !free_.empty() || stopped_; });
        if (stopped_) return nullptr;
        AlignedBuffer* b = free_.front();
        free_.pop_front();
        return b;
    }
    void push_full(Chunk chunk) { push({chunk, nullptr}); }
    void push_end() { push({Chunk{}, nullptr}); }
    void push_error(std::exception_ptr error) { push({Chunk{}, error}); }

    // Consumer side. Rethrows the producer's error; an empty chunk means the end.
    Chunk take_full() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return !full_.empty(); });
        Entry e = full_.front();
        full_.pop_front();
        if (e.error) std::rethrow_exception(e.error);
        return e.chunk;
    }
    void give_back(AlignedBuffer* b) {
        std::lock_guard lock(mutex_);
        free_.push_back(b);
        changed_.notify_all();
    }
    void stop() {
        std::lock_guard lock(mutex_);
        stopped_ = true;
        changed_.notify_all();
    }

private:
    struct Entry {
        Chunk chunk;
        std::exception_ptr error;
    };
    void push(Entry e) {
        std::lock_guard lock(mutex_);
        full_.push_back(e);
        changed_.notify_all();
    }

    std::vector<std::unique_ptr<AlignedBuffer>> buffers_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<AlignedBuffer*> free_;
    std::deque<Entry> full_;
    bool stopped_ = false;
};
