// The statistics database: one encrypted, authenticated record written as two copies,
// the rule that picks between them, the day ring and the calendar conversions.
#include <cstring>

#include "qm_core_internal.h"
#include "util.h"

namespace {

const uint8_t kMagic[8] = {'Q', 'M', 'S', 'T', 'A', 'T', 'S', 0x02};
constexpr uint32_t kVersion = 2;
constexpr size_t kHeader = 44;  // magic, version, id, seq, nonce
constexpr size_t kTagAt = kHeader + QM_STATS_RECORD_SIZE;
static_assert(sizeof(qm_stats) == QM_STATS_RECORD_SIZE, "record layout");
static_assert(kTagAt + 32 == QM_STATS_FILE_SIZE, "file layout");

using qm::util::wipe;
using qm::util::load32_le;
using qm::util::store32_le;

// The record's words in serialised order, except chain, which sits between created and first_day.
uint32_t* head_words(qm_stats* s, int i) {
    uint32_t* w[] = {&s->sessions, &s->write_secs, &s->longest_secs, &s->words, &s->chars,
                     &s->sentences, &s->newlines, &s->saves, &s->created};
    return w[i];
}
uint32_t* tail_words(qm_stats* s, int i) {
    uint32_t* w[] = {&s->first_day, &s->last_day, &s->streak_current, &s->streak_best,
                     &s->days_written, &s->ring_next, &s->ring_used};
    return w[i];
}

void serialise(const qm_stats* in, uint8_t* out) {
    qm_stats* s = const_cast<qm_stats*>(in);
    for (int i = 0; i < 9; ++i) store32_le(out + 4 * i, *head_words(s, i));
    std::memcpy(out + 36, s->chain, 32);
    for (int i = 0; i < 7; ++i) store32_le(out + 68 + 4 * i, *tail_words(s, i));
    for (int i = 0; i < QM_RING_SLOTS; ++i) {
        store32_le(out + 96 + 12 * i, s->ring[i].day);
        store32_le(out + 100 + 12 * i, s->ring[i].words);
        store32_le(out + 104 + 12 * i, s->ring[i].secs);
    }
}

void deserialise(const uint8_t* in, qm_stats* s) {
    for (int i = 0; i < 9; ++i) *head_words(s, i) = load32_le(in + 4 * i);
    std::memcpy(s->chain, in + 36, 32);
    for (int i = 0; i < 7; ++i) *tail_words(s, i) = load32_le(in + 68 + 4 * i);
    for (int i = 0; i < QM_RING_SLOTS; ++i) {
        s->ring[i].day = load32_le(in + 96 + 12 * i);
        s->ring[i].words = load32_le(in + 100 + 12 * i);
        s->ring[i].secs = load32_le(in + 104 + 12 * i);
    }
}

void mac(const uint8_t mac_key[32], const uint8_t* data, size_t n, uint8_t out[32]) {
    hmac_sha256_ctx c;
    hmac_sha256_init(&c, mac_key, 32);
    hmac_sha256_update(&c, data, n);
    hmac_sha256_final(&c, out);
}

}  // namespace

extern "C" void statsdb_reset(qm_stats* s) { std::memset(s, 0, sizeof *s); }

extern "C" void statsdb_encode(const qm_stats* s, const uint8_t enc_key[32], const uint8_t mac_key[32],
                               const uint8_t id[16], uint32_t seq, uint8_t out[QM_STATS_FILE_SIZE],
                               uint8_t tag_out[32]) {
    std::memcpy(out, kMagic, 8);
    store32_le(out + 8, kVersion);
    std::memcpy(out + 12, id, 16);
    store32_le(out + 28, seq);

    uint8_t seq_le[4], nonce[32];
    store32_le(seq_le, seq);
    hmac_sha256_ctx c;
    hmac_sha256_init(&c, mac_key, 32);
    hmac_sha256_update(&c, "qm-stats-nonce", 14);
    hmac_sha256_update(&c, id, 16);
    hmac_sha256_update(&c, seq_le, 4);
    hmac_sha256_update(&c, s->chain, 32);
    hmac_sha256_final(&c, nonce);
    std::memcpy(out + 32, nonce, 12);

    serialise(s, out + kHeader);
    chacha20_xor(enc_key, out + 32, 1, out + kHeader, QM_STATS_RECORD_SIZE);
    mac(mac_key, out, kTagAt, out + kTagAt);
    if (tag_out) std::memcpy(tag_out, out + kTagAt, 32);
}

extern "C" int statsdb_decode(const uint8_t* buf, unsigned len, const uint8_t enc_key[32], const uint8_t mac_key[32],
                              qm_stats* out, uint8_t id_out[16], uint32_t* seq_out, uint8_t tag_out[32]) {
    if (!buf || len < QM_STATS_FILE_SIZE) return STATSDB_ESHORT;
    if (std::memcmp(buf, kMagic, 8) != 0) return STATSDB_EMAGIC;
    if (load32_le(buf + 8) >= 3) return STATSDB_EVERSION;
    uint8_t tag[32];
    mac(mac_key, buf, kTagAt, tag);
    if (!ct_equal(tag, buf + kTagAt, 32)) return STATSDB_ETAG;

    if (out) {  // decrypted on the stack, so decoding is reentrant; the copy is wiped
        uint8_t plain[QM_STATS_RECORD_SIZE];
        std::memcpy(plain, buf + kHeader, QM_STATS_RECORD_SIZE);
        chacha20_xor(enc_key, buf + 32, 1, plain, QM_STATS_RECORD_SIZE);
        deserialise(plain, out);
        wipe(plain, sizeof plain);
        if (out->ring_next >= QM_RING_SLOTS) out->ring_next = 0;
        if (out->ring_used > QM_RING_SLOTS) out->ring_used = QM_RING_SLOTS;
    }
    if (id_out) std::memcpy(id_out, buf + 12, 16);
    if (seq_out) *seq_out = load32_le(buf + 28);
    if (tag_out) std::memcpy(tag_out, buf + kTagAt, 32);
    return 0;
}

extern "C" int statsdb_pick(const uint8_t* db, unsigned db_len, const uint8_t* bak, unsigned bak_len,
                            const uint8_t enc_key[32], const uint8_t mac_key[32], qm_stats* out, uint32_t* seq_out,
                            uint8_t tag_out[32], unsigned* valid_mask) {
    uint32_t db_seq = 0, bak_seq = 0;
    uint8_t db_tag[32], bak_tag[32];
    qm_stats bak_stats;  // the backup's record until it is known to win
    qm_stats* bak_out = out ? &bak_stats : nullptr;
    bool db_ok = db_len && statsdb_decode(db, db_len, enc_key, mac_key, out, nullptr, &db_seq, db_tag) == 0;
    bool bak_ok = bak_len && statsdb_decode(bak, bak_len, enc_key, mac_key, bak_out, nullptr, &bak_seq, bak_tag) == 0;
    if (valid_mask) *valid_mask = unsigned(db_ok) + 2u * unsigned(bak_ok);
    bool choose_bak = bak_ok && (!db_ok || bak_seq > db_seq);
    if (choose_bak && out) *out = bak_stats;
    wipe(&bak_stats, sizeof bak_stats);
    if (!db_ok && !bak_ok) return STATSDB_PICK_NONE;
    if (seq_out) *seq_out = choose_bak ? bak_seq : db_seq;
    if (tag_out) std::memcpy(tag_out, choose_bak ? bak_tag : db_tag, 32);
    return choose_bak ? STATSDB_PICK_BAK : STATSDB_PICK_DB;
}

extern "C" void statsdb_note_day(qm_stats* s, uint32_t day, uint32_t words, uint32_t secs) {
    if (day == 0) return;
    uint32_t used = s->ring_used > QM_RING_SLOTS ? QM_RING_SLOTS : s->ring_used;
    for (uint32_t i = 0; i < used; ++i) {
        if (s->ring[i].day == day) {
            s->ring[i].words += words;
            s->ring[i].secs += secs;
            return;
        }
    }
    s->ring[s->ring_next & (QM_RING_SLOTS - 1)] = qm_day{day, words, secs};
    s->ring_next = (s->ring_next + 1) & (QM_RING_SLOTS - 1);
    if (s->ring_used < QM_RING_SLOTS) ++s->ring_used;
    ++s->days_written;
    if (s->first_day == 0 || day < s->first_day) s->first_day = day;
    if (day <= s->last_day) return;
    if (s->last_day != 0 && day == s->last_day + 1) {
        ++s->streak_current;
        s->last_day = day;
        if (s->streak_current > s->streak_best) s->streak_best = s->streak_current;
    } else {
        s->streak_current = 1;
        s->last_day = day;
        if (s->streak_best == 0) s->streak_best = 1;
    }
}

extern "C" uint32_t statsdb_fatdate_to_day(uint16_t fat_date) {
    static const uint32_t before_month[12] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
    uint32_t mday = fat_date & 31, month = (fat_date >> 5) & 15, y = fat_date >> 9;
    if (mday == 0 || month < 1 || month > 12) return 0;
    uint32_t day = mday + 365 * y + (y + 3) / 4 + before_month[month - 1];
    if (y % 4 == 0 && y != 120 && month >= 3) day += 1;
    if (fat_date >= 0xF200) day -= 1;  // 2100 was counted as leap above
    return day;
}

// Day 1 is 1 January 1980. Civil date from a count of days, in constant time for every input
// (the days-to-civil method over 400-year eras of 146,097 days); years past 65535 are exact too.
extern "C" void qm_day_to_ymd(uint32_t day, unsigned* year, unsigned* month, unsigned* mday) {
    unsigned y = 0, m = 0, d = 0;
    if (day != 0) {
        const uint64_t z = uint64_t(day) - 1 + 3652 + 719468;  // days since 1 March of year 0
        const uint64_t era = z / 146097;
        const uint64_t doe = z - era * 146097;                                    // [0, 146096]
        const uint64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;  // [0, 399]
        const uint64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);              // [0, 365], from 1 March
        const uint64_t mp = (5 * doy + 2) / 153;                                   // [0, 11], March first
        d = unsigned(doy - (153 * mp + 2) / 5 + 1);
        m = unsigned(mp < 10 ? mp + 3 : mp - 9);
        y = unsigned(yoe + era * 400 + (m <= 2));
    }
    if (year) *year = y;
    if (month) *month = m;
    if (mday) *mday = d;
}
