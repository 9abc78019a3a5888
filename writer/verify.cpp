#include "verify.h"

#include <algorithm>
#include <cerrno>
#include <thread>
#include <unistd.h>

#include "aligned_buffer.h"
#include "chunk_queue.h"
#include "protocol.h"
#include "writer_error.h"

namespace {

constexpr size_t kReadBytes = 4 * 1024 * 1024;
constexpr size_t kReadBuffers = 3;

// O_DIRECT reads must be whole blocks; the device (or file) may end sooner, which is fine.
size_t read_some(int fd, AlignedBuffer& buffer, uint64_t offset, uint64_t remaining) {
    size_t want = static_cast<size_t>(std::min<uint64_t>(buffer.size(), remaining));
    want = (want + AlignedBuffer::kAlign - 1) / AlignedBuffer::kAlign * AlignedBuffer::kAlign;
    for (;;) {
        ssize_t n = pread(fd, buffer.data(), want, static_cast<off_t>(offset));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) throw WriterError(describe_io_error(errno, "read back"));
        if (n == 0) throw WriterError("the disk ended before the image did while reading it back; "
                                      "the drive may be failing, try another one");
        return static_cast<size_t>(std::min<uint64_t>(static_cast<uint64_t>(n), remaining));
    }
}

// Reads ahead on its own thread so the disk is busy while the last chunk is hashed.
class ReadThread {
public:
    ReadThread(int fd, uint64_t total, ChunkQueue& queue)
        : queue_(queue), thread_([fd, total, &queue] { run(fd, total, queue); }) {}
    ~ReadThread() {
        queue_.stop();
        thread_.join();
    }

private:
    static void run(int fd, uint64_t total, ChunkQueue& queue) {
        try {
            for (uint64_t offset = 0; offset < total;) {
                AlignedBuffer* buffer = queue.take_free();
                if (!buffer) return;
                size_t n = read_some(fd, *buffer, offset, total - offset);
                queue.push_full({buffer, n});
                offset += n;
            }
            queue.push_end();
        } catch (...) {
            queue.push_error(std::current_exception());
        }
    }

    ChunkQueue& queue_;
    std::thread thread_;
};

}  // namespace

void verify_written(const OpenTarget& in, uint64_t total, XXH128_hash_t expected) {
    ProgressLine progress('V', total);
    progress.start();
    ContentHash hash;
    {
        ChunkQueue queue(kReadBuffers, kReadBytes);
        ReadThread reader(in.fd.get(), total, queue);
        uint64_t checked = 0;
        for (Chunk c = queue.take_full(); c.buffer; c = queue.take_full()) {
            hash.update(c.buffer->data(), c.length);
            checked += c.length;
            queue.give_back(c.buffer);
            progress.update(checked);
        }
    }
    progress.finish(total);
    if (!XXH128_isEqual(hash.digest(), expected))
        throw WriterError("the data read back from the disk differs from the image: the drive may be "
                          "failing or be fake (smaller than it claims); try another drive");
}
