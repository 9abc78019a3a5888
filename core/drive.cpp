// The drive directory: its key file, the open-drive handle and the result messages.
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "qm_core.h"

namespace {

const char kMagicKey[8] = {'Q', 'M', 'D', 'R', 'V', 'K', 'Y', 0x01};
constexpr size_t kPathMax = 1024;

// One block of messages with offsets into it, indexed by code + 8.
const char kMessages[] =
    "buffer too small\0"
    "the system random number generator failed\0"
    "this drive already has a key\0"
    "the statistics database could not be read\0"
    "no statistics have been written yet\0"
    "not a Quillmate drive\0"
    "could not read or write the drive\0"
    "bad argument\0"
    "OK";
const unsigned short kMessageOffsets[9] = {0, 17, 59, 88, 130, 166, 188, 222, 235};
const char kUnknown[] = "unknown error";

void wipe(void* p, size_t n) {
    volatile uint8_t* v = static_cast<volatile uint8_t*>(p);
    while (n--) *v++ = 0;
}

// base + "/" + name with every trailing separator of base stripped. Returns false when
// the result would not fit, so an over-long path is never silently cut to another file.
bool join(char dst[kPathMax], const char* base, const char* name) {
    size_t n = std::strlen(base);
    while (n > 0 && (base[n - 1] == '/' || base[n - 1] == '\\')) --n;
    int w = std::snprintf(dst, kPathMax, "%.*s/%s", int(n), base, name);
    return w >= 0 && size_t(w) < kPathMax;
}

// Reads at most n bytes; a longer file is refused (-1), never truncated.
long read_file(const char* path, uint8_t* buf, size_t n) {
    FILE* f = std::fopen(path, "rb");
    if (!f) return -1;
    size_t got = std::fread(buf, 1, n, f);
    uint8_t extra;
    bool too_long = std::fread(&extra, 1, 1, f) == 1;
    bool failed = std::ferror(f) != 0;
    std::fclose(f);
    if (too_long || failed) return -1;
    return long(got);
}

int write_file(const char* path, const uint8_t buf[QM_KEY_FILE_SIZE]) {
    FILE* f = std::fopen(path, "wb");
    if (!f) return -1;
    bool ok = std::fwrite(buf, 1, QM_KEY_FILE_SIZE, f) == QM_KEY_FILE_SIZE;
    ok = std::fflush(f) == 0 && ok;
    ok = std::fclose(f) == 0 && ok;
    return ok ? 0 : -1;
}

bool key_path(char dst[kPathMax], const char* drive) {
    char rel[64];
    std::snprintf(rel, sizeof rel, "%s/%s", ".qm", "drive.key");
    return join(dst, drive, rel);
}

int load_key(const char* path, qm_drive_key* out) {
    char p[kPathMax];
    if (!key_path(p, path)) return -1;
    uint8_t buf[QM_KEY_FILE_SIZE];
    long n = read_file(p, buf, sizeof buf);
    int rc = n == QM_KEY_FILE_SIZE ? drivekey_unpack(buf, unsigned(n), out) : -1;
    wipe(buf, sizeof buf);
    return rc;
}

void expand(const uint8_t* master, size_t len, const char* label, uint8_t* dst, size_t n) {
    hmac_sha256_ctx c;
    uint8_t out[32];
    hmac_sha256_init(&c, master, len);
    hmac_sha256_update(&c, label, std::strlen(label));
    hmac_sha256_final(&c, out);
    std::memcpy(dst, out, n);
    wipe(out, sizeof out);
}

int cmp_day(const void* a, const void* b) {
    uint32_t x = static_cast<const qm_day*>(a)->day, y = static_cast<const qm_day*>(b)->day;
    return (x > y) - (x < y);
}

void to_hex(const uint8_t* p, size_t n, char* out) {
    static const char digits[] = "0123456789abcdef";
    for (size_t i = 0; i < n; ++i) {
        out[2 * i] = digits[p[i] >> 4];
        out[2 * i + 1] = digits[p[i] & 15];
    }
    out[2 * n] = 0;
}

qm_drive* fail_open(int code, int* err, qm_drive* h, uint8_t* a, uint8_t* b) {
    if (h) {
        std::free(h->days);
        wipe(h, sizeof *h);
    }
    if (a) wipe(a, QM_STATS_FILE_SIZE);
    std::free(h);
    std::free(a);
    std::free(b);
    if (err) *err = code;
    return nullptr;
}

}  // namespace

extern "C" int qm_core_abi(void) { return QM_CORE_ABI; }

extern "C" const char* qm_strerror(int code) {
    if (code < -8 || code > 0) return kUnknown;
    return kMessages + kMessageOffsets[code + 8];
}

extern "C" void drivekey_pack(const qm_drive_key* k, uint8_t out[QM_KEY_FILE_SIZE]) {
    std::memcpy(out, kMagicKey, 8);
    std::memcpy(out + 8, k->drive_id, 16);
    std::memcpy(out + 24, k->enc_key, 32);
    std::memcpy(out + 56, k->mac_key, 32);
    std::memcpy(out + 88, k->upload_key, 32);
}

extern "C" int drivekey_unpack(const uint8_t* buf, unsigned len, qm_drive_key* out) {
    if (!buf || !out || len < QM_KEY_FILE_SIZE) return -1;
    if (std::memcmp(buf, kMagicKey, 8) != 0) return -1;
    std::memcpy(out->drive_id, buf + 8, 16);
    std::memcpy(out->enc_key, buf + 24, 32);
    std::memcpy(out->mac_key, buf + 56, 32);
    std::memcpy(out->upload_key, buf + 88, 32);
    return 0;
}

extern "C" void drivekey_derive(const uint8_t* master, size_t len, qm_drive_key* out) {
    expand(master, len, "qm-drive-id", out->drive_id, 16);
    expand(master, len, "qm-stats-enc", out->enc_key, 32);
    expand(master, len, "qm-stats-mac", out->mac_key, 32);
    std::memset(out->upload_key, 0, 32);
}

extern "C" int qm_is_drive(const char* path) {
    if (!path) return 0;
    qm_drive_key k;
    int ok = load_key(path, &k) == 0;
    wipe(&k, sizeof k);
    return ok;
}

extern "C" int qm_provision(const char* path, int force) {
    if (!path) return QM_EARG;
    qm_drive_key k;
    if (!force && load_key(path, &k) == 0) {
        wipe(&k, sizeof k);
        return QM_EHASKEY;
    }
    if (qm_random_bytes(k.drive_id, 16) || qm_random_bytes(k.enc_key, 32) || qm_random_bytes(k.mac_key, 32) ||
        qm_random_bytes(k.upload_key, 32)) {
        wipe(&k, sizeof k);
        return QM_ERANDOM;
    }
    char dir[kPathMax], file[kPathMax];
    int rc = QM_EIO;
    if (join(dir, path, ".qm") && key_path(file, path)) {
        mkdir(dir, 0700);  // may already exist; the write below tells
        uint8_t packed[QM_KEY_FILE_SIZE];
        drivekey_pack(&k, packed);
        rc = write_file(file, packed) == 0 ? QM_OK : QM_EIO;
        wipe(packed, sizeof packed);
    }
    wipe(&k, sizeof k);
    return rc;
}

extern "C" qm_drive* qm_open(const char* path, int* err) {
    if (!path) {
        if (err) *err = QM_EARG;
        return nullptr;
    }
    qm_drive* h = static_cast<qm_drive*>(std::calloc(1, sizeof(qm_drive)));
    uint8_t* db = static_cast<uint8_t*>(std::malloc(QM_STATS_FILE_SIZE));
    uint8_t* bak = static_cast<uint8_t*>(std::malloc(QM_STATS_FILE_SIZE));
    if (!h || !db || !bak) return fail_open(QM_EIO, err, h, db, bak);
    if (load_key(path, &h->key) != 0) return fail_open(QM_ENOTDRIVE, err, h, db, bak);

    char p[kPathMax];
    long db_len = join(p, path, "stats.db") ? read_file(p, db, QM_STATS_FILE_SIZE) : -1;
    long bak_len = join(p, path, "stats.bak") ? read_file(p, bak, QM_STATS_FILE_SIZE) : -1;
    if (db_len < 0 && bak_len < 0) return fail_open(QM_ENOSTATS, err, h, db, bak);

    unsigned mask = 0;
    int pick = statsdb_pick(db, db_len < 0 ? 0 : unsigned(db_len), bak, bak_len < 0 ? 0 : unsigned(bak_len),
                            h->key.enc_key, h->key.mac_key, &h->stats, &h->seq, h->chain_tag, &mask);
    if (pick == 0) return fail_open(QM_EBADSTATS, err, h, db, bak);
    h->from_backup = pick == 2;
    h->both_valid = mask == 3;

    h->days = static_cast<qm_day*>(std::calloc(QM_RING_SLOTS, sizeof(qm_day)));
    if (!h->days) return fail_open(QM_EIO, err, h, db, bak);
    for (uint32_t i = 0; i < h->stats.ring_used; ++i)
        if (h->stats.ring[i].day != 0) h->days[h->n_days++] = h->stats.ring[i];
    std::qsort(h->days, h->n_days, sizeof(qm_day), cmp_day);

    std::free(db);
    std::free(bak);
    if (err) *err = QM_OK;
    return h;
}

extern "C" void qm_close(qm_drive* h) {
    if (!h) return;
    std::free(h->days);
    wipe(h, sizeof *h);
    std::free(h);
}

extern "C" int qm_summary_get(const qm_drive* h, qm_summary* out) {
    if (!h || !out) return QM_EARG;
    const qm_stats& s = h->stats;
    *out = qm_summary{};
    out->sessions = s.sessions;
    out->write_secs = s.write_secs;
    out->longest_secs = s.longest_secs;
    out->words = s.words;
    out->chars = s.chars;
    out->sentences = s.sentences;
    out->newlines = s.newlines;
    out->saves = s.saves;
    out->created = s.created;
    out->pages = (s.words + 249u) / 250u;
    out->streak_current = s.streak_current;
    out->streak_best = s.streak_best;
    out->days_written = s.days_written;
    out->first_day = s.first_day;
    out->last_day = s.last_day;
    out->seq = h->seq;
    out->n_days = h->n_days;
    std::memcpy(out->drive_id, h->key.drive_id, 16);
    std::memcpy(out->chain_tag, h->chain_tag, 32);
    out->from_backup = h->from_backup;
    out->both_valid = h->both_valid;
    return QM_OK;
}

extern "C" int qm_days_get(const qm_drive* h, qm_day* out, int max) {
    if (!h || !out || max < 0) return QM_EARG;
    int n = std::min<int>(int(h->n_days), max);
    std::memcpy(out, h->days, size_t(n) * sizeof(qm_day));
    return n;
}

extern "C" int qm_drive_id_hex(const qm_drive* h, char out[33]) {
    if (!h || !out) return QM_EARG;
    to_hex(h->key.drive_id, 16, out);
    return QM_OK;
}

extern "C" int qm_upload_key_hex(const qm_drive* h, char out[65]) {
    if (!h || !out) return QM_EARG;
    to_hex(h->key.upload_key, 32, out);
    return QM_OK;
}

extern "C" const uint8_t* qm_upload_key(const qm_drive* h) { return h ? h->key.upload_key : nullptr; }

extern "C" void u64_to_hex16(uint64_t v, char out[17]) {
    static const char digits[] = "0123456789abcdef";
    for (int i = 15; i >= 0; --i, v >>= 4) out[i] = digits[v & 15];
    out[16] = 0;
}

extern "C" int hex16_to_u64(const char* s, uint64_t* out) {
    if (!s || !out) return -1;
    uint64_t v = 0;
    for (int i = 0; i < 16; ++i) {
        char c = s[i];
        int d = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
        if (d < 0) return -1;
        v = v << 4 | unsigned(d);
    }
    *out = v;
    return 0;
}
