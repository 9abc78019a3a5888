// The statistics file format, the copy picker, the day ring with its streaks, and the calendar.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <tuple>
#include <vector>

#include "qm_core_internal.h"

namespace {

using Bytes = std::vector<uint8_t>;

const struct Keys {
    uint8_t enc[32], mac[32], id[16];
    Keys() { for (int i = 0; i < 32; ++i) enc[i] = uint8_t(1 + i), mac[i] = uint8_t(3 + i), id[i / 2] = uint8_t(i); }
} k;

qm_stats sample_record() {
    qm_stats s;
    statsdb_reset(&s);
    s.sessions = 12, s.words = 3456;
    for (uint32_t d = 100; d < 140; d += 2) statsdb_note_day(&s, d, d * 3, d * 7);
    return s;
}

Bytes encode(const qm_stats& s, const Keys& k, uint32_t seq, uint8_t* tag = nullptr) {
    Bytes out(QM_STATS_FILE_SIZE);
    statsdb_encode(&s, k.enc, k.mac, k.id, seq, out.data(), tag);
    return out;
}

int decode(const Bytes& b, const Keys& k, qm_stats* out = nullptr) {
    qm_stats tmp;
    return statsdb_decode(b.data(), unsigned(b.size()), k.enc, k.mac, out ? out : &tmp, nullptr, nullptr, nullptr);
}

TEST(StatsFile, RoundTripsEncryptedRepairsRingIndicesAndRefusesAnyChange) {
    qm_stats s = sample_record(), back;
    for (int i = 0; i < 32; ++i) s.chain[i] = uint8_t(0xa0 + i);
    uint8_t id[16], tag[32], tag_back[32];
    uint32_t seq = 0;
    Bytes file = encode(s, k, 77, tag);
    EXPECT_EQ(std::memcmp(file.data(), "QMSTATS\x02\x02", 9), 0);
    ASSERT_EQ(statsdb_decode(file.data(), QM_STATS_FILE_SIZE, k.enc, k.mac, &back, id, &seq, tag_back), 0);
    EXPECT_TRUE(seq == 77 && std::memcmp(&back, &s, sizeof s) == 0 && std::memcmp(id, k.id, 16) == 0);
    EXPECT_EQ(std::memcmp(tag, tag_back, 32) | std::memcmp(tag, file.data() + QM_STATS_FILE_SIZE - 32, 32), 0);
    // The nonce changes with the sequence number and with the chain.
    Bytes a = encode(s, k, 1), b = encode(s, k, 2);
    s.chain[0] ^= 1;
    auto nonce = [](const Bytes& f) { return Bytes(f.begin() + 32, f.begin() + 44); };
    EXPECT_TRUE(nonce(a) != nonce(b) && nonce(a) != nonce(encode(s, k, 1)));
    EXPECT_FALSE(a[44] == 12 && a[45] == 0 && a[46] == 0 && a[47] == 0) << "the sessions counter in clear";
    s.ring_next = 5000, s.ring_used = 70000;  // out-of-range ring indices are repaired, not refused
    ASSERT_EQ(decode(encode(s, k, 1), k, &back), 0);
    EXPECT_EQ(std::pair(back.ring_next, back.ring_used), std::pair(0u, 1024u));
    Bytes good = encode(sample_record(), k, 5), version = good;
    EXPECT_EQ(decode(Bytes(good.begin(), good.end() - 1), k), STATSDB_ESHORT);
    EXPECT_EQ(statsdb_decode(nullptr, QM_STATS_FILE_SIZE, k.enc, k.mac, nullptr, nullptr, nullptr, nullptr),
              STATSDB_ESHORT);
    EXPECT_EQ(statsdb_decode(good.data(), QM_STATS_FILE_SIZE, k.enc, k.enc, &back, id, &seq, tag), STATSDB_ETAG);
    version[8] = 3;  // still refused as too new even when re-authenticated
    hmac_sha256_ctx c;
    hmac_sha256_init(&c, k.mac, 32);
    hmac_sha256_update(&c, version.data(), QM_STATS_FILE_SIZE - 32);
    hmac_sha256_final(&c, version.data() + QM_STATS_FILE_SIZE - 32);
    EXPECT_EQ(decode(version, k), STATSDB_EVERSION);

    // Every bit of the header, nonce and tag and of sampled record bytes. Bits of the magic make it no
    // statistics file; bits of the version a newer one when they make it 3 or more; any other bit
    // fails the tag.
    for (size_t pos = 0; pos < QM_STATS_FILE_SIZE; pos += pos < 48 || pos >= QM_STATS_FILE_SIZE - 33 ? 1 : 61) {
        for (int bit = 0; bit < 8; ++bit) {
            Bytes f = good;
            f[pos] ^= uint8_t(1u << bit);
            const uint32_t v = f[8] | f[9] << 8 | f[10] << 16 | uint32_t(f[11]) << 24;
            const int want = pos < 8 ? STATSDB_EMAGIC : pos < 12 && v >= 3 ? STATSDB_EVERSION : STATSDB_ETAG;
            ASSERT_EQ(decode(f, k), want) << pos << " bit " << bit;
        }
    }
}

TEST(StatsFile, PickChoosesByValidityThenSequence) {
    qm_stats older = sample_record(), newer = older;
    newer.words += 100;
    Bytes a = encode(older, k, 10), b = encode(newer, k, 11), broken = a;
    broken[100] ^= 1;
    const uint32_t o = older.words, n = newer.words;
    const struct { const Bytes *db, *bak; int pick; unsigned mask; uint32_t words, seq; } cases[] = {
        {&a, &a, 1, 3, o, 10},      {&a, &b, 2, 3, n, 11},           {&b, &a, 1, 3, n, 11},
        {&broken, &a, 2, 2, o, 10}, {&b, &broken, 1, 1, n, 11},      {&broken, &broken, 0, 0, 0, 0},
        {nullptr, &a, 2, 2, o, 10},
    };
    for (const auto& c : cases) {
        qm_stats out{};
        uint32_t seq = 0, mask = 99;
        uint8_t tag[32] = {};
        int r = statsdb_pick(c.db ? c.db->data() : nullptr, c.db ? QM_STATS_FILE_SIZE : 0, c.bak->data(),
                             QM_STATS_FILE_SIZE, k.enc, k.mac, &out, &seq, tag, &mask);
        EXPECT_EQ(std::tuple(r, mask), std::tuple(c.pick, c.mask));
        if (!r) continue;
        EXPECT_EQ(std::tuple(out.words, seq), std::tuple(c.words, c.seq));
        EXPECT_EQ(std::memcmp(tag, (r == STATSDB_PICK_DB ? c.db : c.bak)->data() + QM_STATS_FILE_SIZE - 32, 32), 0);
    }
}

// Each step adds a day, then the ring's use, streaks, first and last day and the first slot.
TEST(DayRing, SameDayAddsUpStreaksFollowConsecutiveDaysAndTheRingKeeps1024) {
    const struct { uint32_t day, words, secs, used, current, best, first, last, words0, secs0; } steps[] = {
        {0, 5, 5, 0, 0, 0, 0, 0, 0, 0}, {10, 100, 60, 1, 1, 1, 10, 10, 100, 60}, {10, 50, 30, 1, 1, 1, 10, 10, 150, 90},
        {10, UINT32_MAX, 0, 1, 1, 1, 10, 10, 149, 90},  // the day's counters wrap rather than saturate
        {11, 1, 1, 2, 2, 2, 10, 11, 149, 90}, {12, 1, 1, 3, 3, 3, 10, 12, 149, 90},
        {14, 1, 1, 4, 1, 3, 10, 14, 149, 90}, {13, 1, 1, 5, 1, 3, 10, 14, 149, 90},  // a late entry: streaks untouched
        {3, 1, 1, 6, 1, 3, 3, 14, 149, 90},
    };
    qm_stats s;
    statsdb_reset(&s);
    for (const auto& t : steps) {
        statsdb_note_day(&s, t.day, t.words, t.secs);
        EXPECT_EQ(std::tuple(s.ring_used, s.days_written, s.streak_current, s.streak_best, s.first_day, s.last_day),
                  std::tuple(t.used, t.used, t.current, t.best, t.first, t.last)) << t.day;
        EXPECT_EQ(std::pair(s.ring[0].words, s.ring[0].secs), std::pair(t.words0, t.secs0)) << t.day;
    }
    statsdb_reset(&s);
    for (uint32_t d = 1; d <= 1025; ++d) statsdb_note_day(&s, 5000 + d, d, d);
    EXPECT_EQ(std::tuple(s.ring_used, s.days_written, s.ring_next, s.streak_best), std::tuple(1024u, 1025u, 1u, 1025u));
    EXPECT_EQ(s.ring[0].day, 5000u + 1025u) << "the first day added was overwritten";
    for (const qm_day& d : s.ring) EXPECT_NE(d.day, 5001u);
}

using Ymd = std::tuple<unsigned, unsigned, unsigned>;

// Every day of the first 60,000 and the last 100,001 below 2^32, every 97th between (which lands on
// every day of the 400-year cycle); then every FAT date: malformed ones give 0, 31 February any day.
TEST(Calendar, DayNumbersAndFatDatesMatchTheCivilCalendarOverTheirWholeRange) {
    alarm(120);  // a conversion that loops over the years fails here instead of stalling the suite
    std::shared_ptr<void> disarm(nullptr, [](void*) { alarm(0); });
    using namespace std::chrono;
    const sys_days epoch = year{1980} / January / 1;
    auto ymd_of = [](uint32_t n) { unsigned y = 9, m = 9, d = 9; qm_day_to_ymd(n, &y, &m, &d); return Ymd(y, m, d); };
    auto civil = [&](uint64_t n) {  // chrono stops at 32767, but the calendar repeats every 146,097 days
        const year_month_day c{epoch + days((n - 1) % 146097)};
        return Ymd(unsigned(int(c.year())) + 400 * unsigned((n - 1) / 146097), unsigned(c.month()), unsigned(c.day()));
    };
    EXPECT_EQ(ymd_of(0), Ymd(0, 0, 0));
    qm_day_to_ymd(5, nullptr, nullptr, nullptr);
    for (uint64_t n = 1; n <= UINT32_MAX; n += n < 60000 || n >= UINT32_MAX - 100000 ? 1 : 97) {
        ASSERT_EQ(ymd_of(uint32_t(n)), civil(n)) << n;
    }
    for (uint32_t raw = 0; raw <= 0xFFFF; ++raw) {
        const unsigned mday = raw & 31, mon = (raw >> 5) & 15;
        const year_month_day date{year{1980 + int(raw >> 9)}, month{mon}, day{mday}};
        const uint32_t want = date.ok() ? uint32_t((sys_days(date) - epoch).count() + 1) : 0;
        if (date.ok() || mday == 0 || mon < 1 || mon > 12) {
            ASSERT_EQ(statsdb_fatdate_to_day(uint16_t(raw)), want) << raw;
        }
    }
}

}  // namespace
