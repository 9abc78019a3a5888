#include "write_image.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>
#include <unistd.h>

#include "chunk_queue.h"
#include "writer_error.h"

namespace {

constexpr size_t kHeadBytes = kMiB;
constexpr size_t kChunkBytes = 4 * kMiB;
constexpr size_t kChunkCount = 3;
constexpr size_t kSector = AlignedBuffer::kAlign;

void write_raw(int fd, const uint8_t* data, size_t length, uint64_t offset) {
    while (length > 0) {
        ssize_t n = pwrite(fd, data, length, static_cast<off_t>(offset));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) throw WriterError(describe_io_error(errno, "write to"));
        if (n == 0) throw WriterError(describe_io_error(ENOSPC, "write to"));
        data += n;
        length -= static_cast<size_t>(n);
        offset += static_cast<uint64_t>(n);
    }
}

// Decodes on its own thread; joined on every way out of write_image.
class InflateThread {
public:
    InflateThread(Inflater& inflater, ChunkQueue& queue)
        : queue_(queue), thread_([&inflater, &queue] { run(inflater, queue); }) {}
    ~InflateThread() {
        queue_.stop();
        thread_.join();
    }

private:
    static void run(Inflater& inflater, ChunkQueue& queue) {
        try {
            while (AlignedBuffer* buffer = queue.take_free()) {
                size_t n = inflater.read(buffer->data(), buffer->size());
                if (n > 0) queue.push_full({buffer, n});
                if (n < buffer->size()) {
                    queue.push_end();
                    return;
                }
            }
        } catch (...) {
            queue.push_error(std::current_exception());
        }
    }

    ChunkQueue& queue_;
    std::thread thread_;
};

// The head first, so the disk has no partition table from here on. Then the last MiB: a
// GPT keeps its backup header in the disk's last sectors, and with it left behind tools
// offer to "repair" the disk back to its old partitions.
void zero_ends(const Target& target, OpenTarget& out) {
    AlignedBuffer zeros(kHeadBytes + kSector);  // the tail may start up to a block early
    size_t length = target.regular_file ? kHeadBytes : std::min<uint64_t>(kHeadBytes, target.size);
    write_fully(out, zeros.data(), length, 0);
    if (!target.regular_file && target.size > kHeadBytes) {
        uint64_t start = (target.size - kHeadBytes) / kSector * kSector;
        bool direct = out.direct;
        write_fully(out, zeros.data(), static_cast<size_t>(target.size - start), start);
        // A disk whose size is not a whole number of 4 KiB blocks ends in a write without O_DIRECT.
        if (direct && !out.direct) restore_direct_io(out);
    }
    flush_to_disk(out);
}

void refuse_overflow(const Target& target, uint64_t end) {
    if (!target.regular_file && end > target.size)
        throw WriterError(describe_io_error(ENOSPC, "write to"));
}

// The partition table lives in the first sector (MBR, or GPT's protective MBR, without
// which the GPT is ignored); it goes last so an interrupted head write leaves none.
void write_head_last(OpenTarget& out, const AlignedBuffer& head, size_t length) {
    size_t first = std::min(length, kSector);
    if (length > first) {
        write_fully(out, head.data() + first, length - first, first);
        flush_to_disk(out);
    }
    write_fully(out, head.data(), first, 0);
}

}  // namespace

void write_fully(OpenTarget& out, const uint8_t* data, size_t length, uint64_t offset) {
    size_t aligned = out.direct && offset % kSector == 0 ? length / kSector * kSector : 0;
    if (aligned > 0) write_raw(out.fd.get(), data, aligned, offset);
    if (aligned == length) return;
    clear_direct_io(out);
    write_raw(out.fd.get(), data + aligned, length - aligned, offset + aligned);
}

void flush_to_disk(OpenTarget& out) {
    if (fdatasync(out.fd.get()) != 0) throw WriterError(describe_io_error(errno, "flush"));
}

// Order: the first and last MiB are zeroed and flushed, the rest of the image follows from 1 MiB
// on, and the image's own first MiB goes last once everything else is flushed. Until
// then the disk has no partition table, so a failure leaves nothing half-bootable.
WrittenImage write_image(const Target& target, OpenTarget& out, Inflater& inflater, uint64_t total,
                         ProgressLine& progress) {
    zero_ends(target, out);

    AlignedBuffer head(kHeadBytes);
    size_t head_length = 0;
    uint64_t position = 0;  // bytes of the image decoded so far
    uint64_t written = 0;
    ContentHash hash;

    ChunkQueue queue(kChunkCount, kChunkBytes);
    {
        InflateThread decoder(inflater, queue);
        for (Chunk c = queue.take_full(); c.buffer; c = queue.take_full()) {
            size_t to_head = position < kHeadBytes ? std::min<uint64_t>(kHeadBytes - position, c.length) : 0;
            std::memcpy(head.data() + head_length, c.buffer->data(), to_head);
            head_length += to_head;
            refuse_overflow(target, position + c.length);
            write_fully(out, c.buffer->data() + to_head, c.length - to_head, position + to_head);
            written += c.length - to_head;
            position += c.length;
            hash.update(c.buffer->data(), c.length);
            queue.give_back(c.buffer);
            progress.update(written);
        }
    }
    if (position != total)
        throw_corrupt_image("it decodes to " + std::to_string(position) + " bytes, not the " +
                            std::to_string(total) + " its trailer promises");

    if (target.regular_file && ftruncate(out.fd.get(), static_cast<off_t>(total)) != 0)
        throw WriterError(describe_io_error(errno, "resize"));
    flush_to_disk(out);
    write_head_last(out, head, head_length);
    if (fsync(out.fd.get()) != 0) throw WriterError(describe_io_error(errno, "flush"));
    progress.finish(total);

    WrittenImage result;
    result.bytes = total;
    result.hash = hash.digest();
    return result;
}
