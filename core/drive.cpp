// The drive folder: its key file, the open-drive handle and the result messages.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "drive_files.h"
#include "qm_core_internal.h"
#include "util.h"

namespace {

namespace drive_files = qm::drive_files;

const char kMagicKey[8] = {'Q', 'M', 'D', 'R', 'V', 'K', 'Y', 0x01};
using qm::util::kPathMax;
using qm::util::to_hex;
using qm::util::wipe;

// The drive folder named by path, trailing separators of either kind ignored. A link given by
// the caller is followed; only what is found on the drive is distrusted. -1 when it does not open.
int open_drive(const char* path) {
    size_t n = std::strlen(path);
    while (n > 0 && (path[n - 1] == '/' || path[n - 1] == '\\')) --n;
    if (n >= kPathMax) return -1;  // refused rather than cut to another folder
    char dir[kPathMax];
    std::memcpy(dir, path, n);
    dir[n] = 0;
    return open(n == 0 && path[0] ? "/" : dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

int load_key(int drive_fd, qm_drive_key* out) {
    int qm = drive_files::open_folder(drive_fd, ".qm");
    if (qm < 0) return -1;
    uint8_t buf[QM_KEY_FILE_SIZE];
    long n = drive_files::read_regular(qm, "drive.key", buf, sizeof buf);
    close(qm);
    int rc = n == QM_KEY_FILE_SIZE ? drivekey_unpack(buf, unsigned(n), out) : DRIVEKEY_EBAD;
    wipe(buf, sizeof buf);
    return rc;
}

// Writes the key to a fresh file beside drive.key and renames it over, so a reader never sees
// half a key and a link standing at drive.key is replaced instead of written through.
int write_key(int drive_fd, const uint8_t packed[QM_KEY_FILE_SIZE]) {
    mkdirat(drive_fd, ".qm", 0700);  // may already exist; the open below tells
    int qm = drive_files::open_folder(drive_fd, ".qm");
    if (qm < 0) return -1;
    uint8_t nonce[8];
    char tmp[32];
    std::memcpy(tmp, ".drive.key-", 11);
    int fd = -1;
    if (qm_random_bytes(nonce, sizeof nonce) == QM_OK) {
        to_hex(nonce, sizeof nonce, tmp + 11);
        fd = openat(qm, tmp, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    }
    bool ok = fd >= 0 && drive_files::write_all(fd, packed, QM_KEY_FILE_SIZE) && fsync(fd) == 0;
    if (fd >= 0) ok = close(fd) == 0 && ok;
    ok = ok && renameat(qm, tmp, qm, "drive.key") == 0;
    if (!ok && fd >= 0) unlinkat(qm, tmp, 0);
    if (ok) fsync(qm);  // the rename itself reaches the drive
    close(qm);
    return ok ? 0 : -1;
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
    switch (code) {
        case QM_OK: return "OK";
        case QM_EARG: return "bad argument";
        case QM_EIO: return "could not read or write the drive";
        case QM_ENOTDRIVE: return "not a Quillmate drive";
        case QM_ENOSTATS: return "no statistics have been written yet";
        case QM_EBADSTATS: return "the statistics database could not be read";
        case QM_EHASKEY: return "this drive already has a key";
        case QM_ERANDOM: return "the system random number generator failed";
        case QM_ESMALL: return "buffer too small";
        case QM_ENOHISTORY: return "This document has no history log yet.";
        default: return "unknown error";
    }
}

extern "C" void drivekey_pack(const qm_drive_key* k, uint8_t out[QM_KEY_FILE_SIZE]) {
    std::memcpy(out, kMagicKey, 8);
    std::memcpy(out + 8, k->drive_id, 16);
    std::memcpy(out + 24, k->enc_key, 32);
    std::memcpy(out + 56, k->mac_key, 32);
    std::memcpy(out + 88, k->upload_key, 32);
}

extern "C" int drivekey_unpack(const uint8_t* buf, unsigned len, qm_drive_key* out) {
    if (!buf || !out || len < QM_KEY_FILE_SIZE) return DRIVEKEY_EBAD;
    if (std::memcmp(buf, kMagicKey, 8) != 0) return DRIVEKEY_EBAD;
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
    int drive = path ? open_drive(path) : -1;
    if (drive < 0) return 0;
    qm_drive_key k;
    int ok = load_key(drive, &k) == 0;
    wipe(&k, sizeof k);
    close(drive);
    return ok;
}

extern "C" int qm_key_drive_id_hex(const char* path, char out[33]) {
    if (!path || !out) return QM_EARG;
    int drive = open_drive(path);
    qm_drive_key k;
    bool ok = drive >= 0 && load_key(drive, &k) == 0;
    if (drive >= 0) close(drive);
    if (ok) to_hex(k.drive_id, 16, out);
    wipe(&k, sizeof k);
    return ok ? QM_OK : QM_ENOTDRIVE;
}

extern "C" int qm_provision(const char* path, int force) {
    if (!path) return QM_EARG;
    int drive = open_drive(path);
    if (drive < 0) return QM_EIO;
    qm_drive_key k;
    int rc = QM_OK;
    if (!force && load_key(drive, &k) == 0) {
        rc = QM_EHASKEY;
    } else if (qm_random_bytes(k.drive_id, 16) != QM_OK || qm_random_bytes(k.enc_key, 32) != QM_OK ||
               qm_random_bytes(k.mac_key, 32) != QM_OK || qm_random_bytes(k.upload_key, 32) != QM_OK) {
        rc = QM_ERANDOM;
    } else {
        uint8_t packed[QM_KEY_FILE_SIZE];
        drivekey_pack(&k, packed);
        rc = write_key(drive, packed) == 0 ? QM_OK : QM_EIO;
        wipe(packed, sizeof packed);
    }
    wipe(&k, sizeof k);
    close(drive);
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
    int drive = open_drive(path);
    bool has_key = drive >= 0 && load_key(drive, &h->key) == 0;
    // A copy that is a link, a FIFO or too long counts as missing.
    long db_len = has_key ? drive_files::read_regular(drive, "stats.db", db, QM_STATS_FILE_SIZE) : -1;
    long bak_len = has_key ? drive_files::read_regular(drive, "stats.bak", bak, QM_STATS_FILE_SIZE) : -1;
    if (drive >= 0) close(drive);
    if (!has_key) return fail_open(QM_ENOTDRIVE, err, h, db, bak);
    if (db_len < 0 && bak_len < 0) return fail_open(QM_ENOSTATS, err, h, db, bak);

    unsigned mask = 0;
    int pick = statsdb_pick(db, db_len < 0 ? 0 : unsigned(db_len), bak, bak_len < 0 ? 0 : unsigned(bak_len),
                            h->key.enc_key, h->key.mac_key, &h->stats, &h->seq, h->chain_tag, &mask);
    if (pick == STATSDB_PICK_NONE) return fail_open(QM_EBADSTATS, err, h, db, bak);
    h->from_backup = pick == STATSDB_PICK_BAK;
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
    out->pages = uint32_t((uint64_t(s.words) + 249u) / 250u);  // no wrap for the last 249 words
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
    for (int i = 15; i >= 0; --i, v >>= 4) out[i] = qm::util::hex_digit(unsigned(v));
    out[16] = 0;
}

extern "C" int hex16_to_u64(const char* s, uint64_t* out) {
    if (!s || !out) return HEX16_EBAD;
    uint64_t v = 0;
    for (int i = 0; i < 16; ++i) {
        char c = s[i];
        int d = c >= '0' && c <= '9'   ? c - '0'
                : c >= 'a' && c <= 'f' ? c - 'a' + 10
                : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                       : -1;
        if (d < 0) return HEX16_EBAD;
        v = v << 4 | unsigned(d);
    }
    *out = v;
    return 0;
}
