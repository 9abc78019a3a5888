// The size check against sticks that claim more than their flash: stand-ins that wrap
// addresses past the real size or drop the writes there, and honest ones.
#include <gtest/gtest.h>

#include <cstring>
#include <map>

#include "capacity_check.h"
#include "writer_error.h"

namespace {

constexpr uint64_t kPage = 4096, kGiB = 1ull << 30;

// Writes sit in a cache until flush(); reads see the cache first, as the page cache would.
class FakeStick : public ProbedDisk {
public:
    enum Kind { Honest, Wraps, Drops } kind;
    uint64_t real;
    std::map<uint64_t, std::string> flash, cache;  // 4 KiB pages by offset; the flash by place in it

    FakeStick(Kind k, uint64_t r) : kind(k), real(r) {}
    static std::string old_content(uint64_t place) { return std::string(kPage, static_cast<char>(place / kPage % 251)); }
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
    uint64_t place(uint64_t p) const { return kind == Wraps ? p % real : p; }
};

}  // namespace

TEST(WriterCapacityCheck, RefusesWhatDoesNotHoldAndLeavesEveryDiskAsItWas) {
    const struct { FakeStick::Kind kind; uint64_t claimed, real; const char* says; } cases[] = {
        {FakeStick::Honest, 64'000'000'000, 0, nullptr},
        {FakeStick::Honest, 64 * kGiB / 1024 + 512, 0, nullptr},
        {FakeStick::Wraps, 64'000'000'000, 8 * kGiB, "only about 8.6 GB of its 64.0 GB work (what is written past that lands on earlier data)"},
        {FakeStick::Wraps, 64 * kGiB / 1024, 16 * kGiB / 1024, "only about 17 MB of its 67 MB work"},
        {FakeStick::Wraps, 32'000'000'000, kGiB / 1024, "only about 1 MB of its 32.0 GB"},
        {FakeStick::Drops, 64'000'000'000, 7'800'000'000, "only about 7.5 GB of its 64.0 GB work (what is written past that is lost)"},
        {FakeStick::Drops, 64'000'000'000, 64'000'000'000 - kPage, "only about 63.4 GB of its 64.0 GB"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.claimed) + " " + std::to_string(c.real));
        FakeStick stick(c.kind, c.real);
        std::string error;
        try {
            check_capacity(stick, c.claimed);
        } catch (const WriterError& e) {
            error = e.what();
        }
        if (c.says) EXPECT_NE(error.find(c.says), std::string::npos) << error;
        else EXPECT_EQ(error, "");
        EXPECT_TRUE(stick.cache.empty());
        for (const auto& [place, page] : stick.flash) EXPECT_TRUE(page == FakeStick::old_content(place)) << place;
    }
}
