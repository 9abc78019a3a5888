// The statistics file format, the copy picker, the day ring with its streaks, and the calendar.
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstring>
#include <vector>

#include "qm_core.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct Keys {
    uint8_t enc[32], mac[32], id[16];
    Keys(uint8_t fill = 1) {
        for (int i = 0; i < 32; ++i) enc[i] = uint8_t(fill + i), mac[i] = uint8_t(fill * 3 + i);
        for (int i = 0; i < 16; ++i) id[i] = uint8_t(fill * 7 + i);
    }
};

qm_stats sample_record() {
    qm_stats s;
    statsdb_reset(&s);
    s.sessions = 12;
    s.words = 3456;
    for (uint32_t d = 100; d < 140; d += 2) statsdb_note_day(&s, d, d * 3, d * 7);
    return s;
}

Bytes encode(const qm_stats& s, const Keys& k, uint32_t seq, uint8_t* tag = nullptr) {
    Bytes out(QM_STATS_FILE_SIZE);
    statsdb_encode(&s, k.enc, k.mac, k.id, seq, out.data(), tag);
    return out;
}

int decode(const Bytes& b, const Keys& k, qm_stats* out = nullptr, uint32_t* seq = nullptr) {
    qm_stats tmp;
    return statsdb_decode(b.data(), unsigned(b.size()), k.enc, k.mac, out ? out : &tmp, nullptr, seq, nullptr);
}

TEST(StatsFile, RoundTripsEveryFieldAndReturnsIdSeqAndTag) {
    Keys k;
    qm_stats s = sample_record();
    for (int i = 0; i < 32; ++i) s.chain[i] = uint8_t(0xa0 + i);
    uint8_t tag[32];
    Bytes file = encode(s, k, 77, tag);
    EXPECT_EQ(std::memcmp(file.data(), "QMSTATS\x02", 8), 0);
    EXPECT_EQ(file[8], 2);
    qm_stats back;
    uint8_t id[16], tag_back[32];
    uint32_t seq = 0;
    ASSERT_EQ(statsdb_decode(file.data(), QM_STATS_FILE_SIZE, k.enc, k.mac, &back, id, &seq, tag_back), 0);
    EXPECT_EQ(std::memcmp(&back, &s, sizeof s), 0);
    EXPECT_EQ(std::memcmp(id, k.id, 16), 0);
    EXPECT_EQ(seq, 77u);
    EXPECT_EQ(std::memcmp(tag, tag_back, 32), 0);
    EXPECT_EQ(std::memcmp(tag, file.data() + QM_STATS_FILE_SIZE - 32, 32), 0);

    // The record is encrypted, and the nonce changes with the sequence number and the chain.
    Bytes a = encode(s, k, 1), b = encode(s, k, 2);
    s.chain[0] ^= 1;
    Bytes c = encode(s, k, 1);
    EXPECT_NE(Bytes(a.begin() + 32, a.begin() + 44), Bytes(b.begin() + 32, b.begin() + 44));
    EXPECT_NE(Bytes(a.begin() + 32, a.begin() + 44), Bytes(c.begin() + 32, c.begin() + 44));
    EXPECT_FALSE(a[44] == 12 && a[45] == 0 && a[46] == 0 && a[47] == 0) << "the sessions counter in clear";

    s.ring_next = 5000;  // out-of-range ring indices are repaired, not refused
    s.ring_used = 70000;
    ASSERT_EQ(decode(encode(s, k, 1), k, &back), 0);
    EXPECT_EQ(back.ring_next, 0u);
    EXPECT_EQ(back.ring_used, 1024u);
}

TEST(StatsFile, DecodeRefusesShortBadMagicNewVersionAndAnyChangedBit) {
    Keys k;
    Bytes good = encode(sample_record(), k, 5);
    EXPECT_EQ(decode(Bytes(good.begin(), good.end() - 1), k), -1);
    Bytes magic = good;
    magic[7] = 0x03;
    EXPECT_EQ(decode(magic, k), -2);
    Bytes version = good;
    version[8] = 3;  // still refused as too new even when re-authenticated
    hmac_sha256_ctx c;
    hmac_sha256_init(&c, k.mac, 32);
    hmac_sha256_update(&c, version.data(), QM_STATS_FILE_SIZE - 32);
    hmac_sha256_final(&c, version.data() + QM_STATS_FILE_SIZE - 32);
    EXPECT_EQ(decode(version, k), -3);
    version[8] = 1;
    EXPECT_EQ(decode(version, k), -4);  // version 1 is accepted, but the tag no longer matches

    EXPECT_EQ(decode(Bytes(), k), -1);
    EXPECT_EQ(statsdb_decode(nullptr, QM_STATS_FILE_SIZE, k.enc, k.mac, nullptr, nullptr, nullptr, nullptr), -1);

    // Every bit of sampled bytes across header, nonce, record and tag. Bits of the magic give -2;
    // bits of the version give -3 when they make it 3 or more, else -4 like everything after it.
    std::vector<size_t> positions = {0, 7, 8, 9, 11, 12, 27, 28, 31, 32, 43, 44, QM_STATS_FILE_SIZE - 33,
                                     QM_STATS_FILE_SIZE - 32, QM_STATS_FILE_SIZE - 1};
    for (size_t pos = 13; pos < QM_STATS_FILE_SIZE; pos += 61) positions.push_back(pos);
    for (size_t pos : positions) {
        for (int bit = 0; bit < 8; ++bit) {
            Bytes flipped = good;
            flipped[pos] ^= uint8_t(1u << bit);
            uint32_t version = flipped[8] | flipped[9] << 8 | flipped[10] << 16 | uint32_t(flipped[11]) << 24;
            int expect = pos < 8 ? -2 : pos < 12 && version >= 3 ? -3 : -4;
            ASSERT_EQ(decode(flipped, k), expect) << pos << " bit " << bit;
        }
    }
    Keys other(9);
    EXPECT_EQ(decode(good, other), -4);
}

TEST(StatsPick, ChoosesByValidityThenSequence) {
    Keys k;
    qm_stats older = sample_record(), newer = older;
    newer.words += 100;
    Bytes a = encode(older, k, 10), b = encode(newer, k, 11), broken = a;
    broken[100] ^= 1;
    struct Case {
        const Bytes* db;
        const Bytes* bak;
        int pick;
        unsigned mask;
        uint32_t words, seq;
    } cases[] = {
        {&a, &a, 1, 3, older.words, 10},      {&a, &b, 2, 3, newer.words, 11},
        {&b, &a, 1, 3, newer.words, 11},      {&broken, &a, 2, 2, older.words, 10},
        {&b, &broken, 1, 1, newer.words, 11}, {&broken, &broken, 0, 0, 0, 0},
        {nullptr, &a, 2, 2, older.words, 10},
    };
    for (const Case& c : cases) {
        qm_stats out{};
        uint32_t seq = 0;
        unsigned mask = 99;
        uint8_t tag[32];
        int r = statsdb_pick(c.db ? c.db->data() : nullptr, c.db ? QM_STATS_FILE_SIZE : 0, c.bak->data(),
                             QM_STATS_FILE_SIZE, k.enc, k.mac, &out, &seq, tag, &mask);
        EXPECT_EQ(r, c.pick);
        EXPECT_EQ(mask, c.mask);
        if (r) {
            EXPECT_EQ(out.words, c.words);
            EXPECT_EQ(seq, c.seq);
            const Bytes& chosen = r == 1 ? *c.db : *c.bak;
            EXPECT_EQ(std::memcmp(tag, chosen.data() + QM_STATS_FILE_SIZE - 32, 32), 0);
        }
    }
}

TEST(DayRing, SameDayAddsUpAndStreaksFollowConsecutiveDays) {
    qm_stats s;
    statsdb_reset(&s);
    statsdb_note_day(&s, 0, 5, 5);
    EXPECT_EQ(s.ring_used, 0u);
    statsdb_note_day(&s, 10, 100, 60);
    statsdb_note_day(&s, 10, 50, 30);
    EXPECT_EQ(s.days_written, 1u);
    EXPECT_EQ(s.ring[0].words, 150u);
    EXPECT_EQ(s.ring[0].secs, 90u);
    statsdb_note_day(&s, 10, 0xFFFFFFFFu, 0);  // the day's counters wrap rather than saturate
    EXPECT_EQ(s.ring[0].words, 149u);
    EXPECT_EQ(s.ring_used, 1u);
    statsdb_note_day(&s, 11, 1, 1);
    statsdb_note_day(&s, 12, 1, 1);
    EXPECT_EQ(s.streak_current, 3u);
    EXPECT_EQ(s.streak_best, 3u);
    statsdb_note_day(&s, 14, 1, 1);
    EXPECT_EQ(s.streak_current, 1u);
    EXPECT_EQ(s.streak_best, 3u);
    statsdb_note_day(&s, 13, 1, 1);  // a late entry: a new slot, streaks untouched
    EXPECT_EQ(s.ring_used, 5u);
    EXPECT_EQ(s.streak_current, 1u);
    EXPECT_EQ(s.last_day, 14u);
    statsdb_note_day(&s, 3, 1, 1);
    EXPECT_EQ(s.first_day, 3u);
    EXPECT_EQ(s.last_day, 14u);
}

TEST(DayRing, KeepsTheLast1024DaysAddedAndCountsThemAll) {
    qm_stats s;
    statsdb_reset(&s);
    for (uint32_t d = 1; d <= 1025; ++d) statsdb_note_day(&s, 5000 + d, d, d);
    EXPECT_EQ(s.ring_used, 1024u);
    EXPECT_EQ(s.days_written, 1025u);
    EXPECT_EQ(s.ring_next, 1u);
    EXPECT_EQ(s.ring[0].day, 5000u + 1025u);  // the first day added was overwritten
    for (const qm_day& d : s.ring) EXPECT_NE(d.day, 5001u);
    EXPECT_EQ(s.streak_best, 1025u);
}

uint32_t chrono_day(int y, unsigned m, unsigned d) {
    using namespace std::chrono;
    return uint32_t((sys_days(year{y} / month{m} / day{d}) - sys_days(year{1980} / January / 1)).count() + 1);
}

struct Ymd {
    unsigned y, m, d;
    bool operator==(const Ymd&) const = default;
};
std::ostream& operator<<(std::ostream& o, const Ymd& v) { return o << v.y << "-" << v.m << "-" << v.d; }

Ymd ymd_of(uint32_t n) {
    Ymd v{9, 9, 9};
    qm_day_to_ymd(n, &v.y, &v.m, &v.d);
    return v;
}

bool leap(unsigned y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

void next_day(Ymd& v) {
    static const unsigned len[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (v.d < len[v.m - 1] + (v.m == 2 && leap(v.y))) return void(++v.d);
    v.d = 1;
    if (++v.m == 13) v.m = 1, ++v.y;
}

// Against std::chrono where it reaches, then a calendar walked year by year up to the top of the
// uint32 range (every 1 January, 29 February or 1 March, 31 December), and day by day through its last 100,001 days.
TEST(Calendar, DayNumbersMatchTheCivilCalendarOverTheWholeRange) {
    EXPECT_EQ(ymd_of(0), (Ymd{0, 0, 0}));
    qm_day_to_ymd(5, nullptr, nullptr, nullptr);
    using namespace std::chrono;
    for (uint32_t n = 1; n <= 60000; ++n) {
        year_month_day c{sys_days(year{1980} / January / 1) + days(n - 1)};
        ASSERT_EQ(ymd_of(n), (Ymd{unsigned(int(c.year())), unsigned(c.month()), unsigned(c.day())})) << n;
    }
    const uint64_t tail = uint64_t(UINT32_MAX) - 100000;
    uint64_t first = 1;  // day number of 1 January of year y
    unsigned y = 1980;
    for (; first + 365 + leap(y) <= tail; first += 365 + leap(y), ++y) {
        uint64_t feb_end = first + 58 + leap(y);
        ASSERT_TRUE(ymd_of(uint32_t(first)) == (Ymd{y, 1, 1})) << first;
        ASSERT_TRUE(ymd_of(uint32_t(feb_end)) == (Ymd{y, 2, 28u + leap(y)})) << feb_end;
        ASSERT_TRUE(ymd_of(uint32_t(feb_end + 1)) == (Ymd{y, 3, 1})) << feb_end + 1;
        ASSERT_TRUE(ymd_of(uint32_t(first + 364 + leap(y))) == (Ymd{y, 12, 31})) << first;
    }
    Ymd walked{y, 1, 1};
    for (uint64_t n = first; n <= UINT32_MAX; ++n, next_day(walked)) {
        if (n >= tail) {
            ASSERT_EQ(ymd_of(uint32_t(n)), walked) << n;
        }
    }
}

TEST(Calendar, FatDatesConvertExactlyOverTheWholeRange) {
    using namespace std::chrono;
    for (uint32_t raw = 0; raw <= 0xFFFF; ++raw) {
        unsigned mday = raw & 31, mon = (raw >> 5) & 15;
        int yr = 1980 + int(raw >> 9);
        year_month_day ymd{year{yr}, month{mon}, day{mday}};
        uint32_t expect = (mday == 0 || mon < 1 || mon > 12) ? 0
                          : ymd.ok() ? chrono_day(yr, mon, mday)
                                     : UINT32_MAX;  // e.g. 31 February: any value, checked below
        uint32_t got = statsdb_fatdate_to_day(uint16_t(raw));
        if (expect == UINT32_MAX) continue;
        ASSERT_EQ(got, expect) << yr << "-" << mon << "-" << mday;
    }
    EXPECT_EQ(statsdb_fatdate_to_day((0 << 9) | (1 << 5) | 1), 1u);
    EXPECT_EQ(statsdb_fatdate_to_day((120 << 9) | (3 << 5) | 1), chrono_day(2100, 2, 28) + 1);
}

}  // namespace
