// The writer's checks of the disk: the size check against stand-ins for sticks that claim more
// than their flash (past the real size addresses wrap, or writes vanish; writes wait in a cache
// until flush(), as in the page cache), and the read-back after the write.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <cstdlib>
#include <cstring>
#include <map>

#include "capacity_check.h"
#include "verify.h"
#include "writer_error.h"

constexpr uint64_t kPage = 4096, kGiB = 1ull << 30;
enum Kind { Honest, Wraps, Drops };

struct FakeStick : ProbedDisk {
    Kind kind; uint64_t real;
    std::map<uint64_t, std::string> flash, cache;  // 4 KiB pages by place in the flash, by offset

    FakeStick(Kind k, uint64_t r) : kind(k), real(r) {}
    static std::string old_content(uint64_t p) { return std::string(kPage, static_cast<char>(p / kPage % 251)); }
    uint64_t place(uint64_t p) const { return kind == Wraps ? p % real : p; }
    void read(uint8_t* data, size_t length, uint64_t offset) override {
        for (uint64_t p = offset; p < offset + length; p += kPage, data += kPage) {
            std::string page = cache.count(p) ? cache[p] : kind == Drops && p >= real ? std::string(kPage, '\0')
                             : flash.count(place(p)) ? flash[place(p)] : old_content(place(p));
            std::memcpy(data, page.data(), kPage);
        }
    }
    void write(const uint8_t* data, size_t length, uint64_t offset) override {
        for (uint64_t p = offset; p < offset + length; p += kPage, data += kPage)
            cache[p].assign(reinterpret_cast<const char*>(data), kPage);
    }
    void flush() override {
        for (auto& [p, page] : cache)
            if (kind != Drops || p < real) flash[place(p)] = page;
        cache.clear();
    }
};

TEST(WriterCapacityCheck, RefusesWhatDoesNotHoldAndLeavesEveryDiskAsItWas) {
    const struct { Kind kind; uint64_t claimed, real; const char* says; } cases[] = {
        {Honest, 64'000'000'000, 0, ""}, {Honest, 64 * kMiB + 512, 0, ""},
        {Wraps, 64'000'000'000, 8 * kGiB,
         "only about 8.6 GB of its 64.0 GB work (what is written past that lands on earlier data)"},
        {Wraps, 64 * kMiB, 16 * kMiB, "only about 17 MB of its 67 MB work"},
        {Wraps, 32'000'000'000, kMiB, "only about 1 MB of"},
        {Drops, 64'000'000'000, 7'800'000'000,
         "only about 7.5 GB of its 64.0 GB work (what is written past that is lost)"},
        {Drops, 64'000'000'000, 64'000'000'000 - kPage, "only about 63.4 GB of its 64.0 GB"},  // just the last block
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.claimed) + " " + std::to_string(c.real));
        FakeStick stick(c.kind, c.real);
        std::string error;
        try { check_capacity(stick, c.claimed); } catch (const WriterError& e) { error = e.what(); }
        EXPECT_EQ(error.empty(), !*c.says);
        EXPECT_NE(error.find(c.says), std::string::npos) << error;
        EXPECT_TRUE(stick.cache.empty());
        for (const auto& [place, page] : stick.flash) EXPECT_TRUE(page == FakeStick::old_content(place)) << place;
    }
}

// What is read back must hash as what was written; a disk that returns other bytes fails the write.
TEST(WriterVerify, FailsWhenTheBytesReadBackDiffer) {
    char path[] = "/tmp/qm-verify-XXXXXX";
    OpenTarget disk{FileDescriptor(mkstemp(path))};
    unlink(path);
    const std::string written(3 * kMiB + 100, 'w');
    ASSERT_EQ(pwrite(disk.fd.get(), written.data(), written.size(), 0), ssize_t(written.size()));
    for (const std::string& sent : {written, std::string(written).replace(kMiB, 1, "x")}) {
        ContentHash hash;
        hash.update(reinterpret_cast<const uint8_t*>(sent.data()), sent.size());
        std::string error;
        try { verify_written(disk, sent.size(), hash.digest()); } catch (const WriterError& e) { error = e.what(); }
        EXPECT_EQ(error.empty(), sent == written) << error;
        if (sent != written) {
            EXPECT_NE(error.find("differs from the image"), std::string::npos) << error;
        }
    }
}
