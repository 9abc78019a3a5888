/* The core's internals, for its own sources, the deck simulator, the release tool, benchmarks and
 * tests: the primitives and on-drive formats under their own names, and the open-drive handle's
 * layout. Nothing here is installed; the app and the service use qm_core.h only. */
#ifndef QM_CORE_INTERNAL_H
#define QM_CORE_INTERNAL_H

#include "qm_core.h"

#ifdef __cplusplus
extern "C" {
#endif

#define QM_KEY_FILE_SIZE 120
#define QM_STATS_RECORD_SIZE 12384
#define QM_STATS_FILE_SIZE 12460

/* ---- Crypto primitives ------------------------------------------------- */

typedef qm_sha256_ctx sha256_ctx;

typedef struct {
    sha256_ctx inner;
    uint8_t okey[64]; /* key XOR 0x5c, wiped by hmac_sha256_final */
} hmac_sha256_ctx;

void chacha20_xor(const uint8_t key[32], const uint8_t nonce[12], uint32_t counter, uint8_t* buf, size_t len);

void sha256_init(sha256_ctx* ctx);
void sha256_update(sha256_ctx* ctx, const void* data, size_t len);
void sha256_final(sha256_ctx* ctx, uint8_t out[32]);
void sha256(const void* data, size_t len, uint8_t out[32]);

/* SHA-256 block function in use. QM_SHA256_AUTO picks the hardware path when the
 * processor has one; the others force a path (for tests and benchmarks). Returns 0, or
 * SHA256_EUNAVAILABLE when the requested path is not available here. Safe while other
 * threads hash: each block run uses one path or the other. */
#define QM_SHA256_AUTO 0
#define QM_SHA256_PORTABLE 1
#define QM_SHA256_HARDWARE 2
#define SHA256_EUNAVAILABLE (-1)
int sha256_select(int impl);
const char* sha256_impl_name(void);

void hmac_sha256_init(hmac_sha256_ctx* ctx, const uint8_t* key, size_t key_len);
void hmac_sha256_update(hmac_sha256_ctx* ctx, const void* data, size_t len);
void hmac_sha256_final(hmac_sha256_ctx* ctx, uint8_t out[32]);

/* 1 when the n bytes are equal, else 0, in a time that depends on n only. */
int ct_equal(const uint8_t* a, const uint8_t* b, size_t n);

uint64_t fnv1a64(const void* data, size_t len);
uint64_t fnv1a64_update(uint64_t h, const void* data, size_t len);

void qm_sha512(const void* data, size_t len, uint8_t out[64]);
void sha512_block(uint64_t state[8], const uint8_t block[128]);

/* 1 when sig is valid, else 0; messages longer than QM_ED25519_MAX_MESSAGE are refused. */
#define QM_ED25519_MAX_MESSAGE 256
int qm_ed25519_verify(const void* msg, size_t msg_len, const uint8_t sig[64], const uint8_t pub[32]);

/* ---- Drive key and handle ---------------------------------------------- */

typedef struct {
    uint8_t drive_id[16];
    uint8_t enc_key[32];
    uint8_t mac_key[32];
    uint8_t upload_key[32];
} qm_drive_key;

/* The plaintext statistics record, serialised little-endian in exactly this layout. */
typedef struct {
    uint32_t sessions;
    uint32_t write_secs;
    uint32_t longest_secs;
    uint32_t words;
    uint32_t chars;
    uint32_t sentences;
    uint32_t newlines;
    uint32_t saves;
    uint32_t created;
    uint8_t chain[32];
    uint32_t first_day;
    uint32_t last_day;
    uint32_t streak_current;
    uint32_t streak_best;
    uint32_t days_written;
    uint32_t ring_next;
    uint32_t ring_used;
    qm_day ring[QM_RING_SLOTS];
} qm_stats;

struct qm_drive {
    qm_stats stats;
    qm_drive_key key;
    uint32_t seq;
    uint8_t chain_tag[32];
    uint32_t from_backup;
    uint32_t both_valid;
    qm_day* days; /* QM_RING_SLOTS entries, n_days of them valid, ascending by day */
    uint32_t n_days;
};

/* Key file packing, shared with the deck. drivekey_unpack: 0, or DRIVEKEY_EBAD for a short
 * buffer or a wrong magic. */
#define DRIVEKEY_EBAD (-1)
void drivekey_pack(const qm_drive_key* k, uint8_t out[QM_KEY_FILE_SIZE]);
int drivekey_unpack(const uint8_t* buf, unsigned len, qm_drive_key* out);
void drivekey_derive(const uint8_t* master, size_t len, qm_drive_key* out);

/* hex16_to_u64: 0, or HEX16_EBAD when one of the 16 characters is not a hex digit. */
#define HEX16_EBAD (-1)
void u64_to_hex16(uint64_t v, char out[17]);
int hex16_to_u64(const char* s, uint64_t* out);

/* ---- Statistics database ------------------------------------------------ */

/* statsdb_decode's results besides 0, in the order it checks. */
#define STATSDB_ESHORT (-1)   /* shorter than a statistics file */
#define STATSDB_EMAGIC (-2)   /* not a statistics file */
#define STATSDB_EVERSION (-3) /* written by a newer format */
#define STATSDB_ETAG (-4)     /* does not authenticate */

/* statsdb_pick's results: which copy was chosen. */
#define STATSDB_PICK_NONE 0
#define STATSDB_PICK_DB 1
#define STATSDB_PICK_BAK 2

void statsdb_reset(qm_stats* s);
void statsdb_encode(const qm_stats* s, const uint8_t enc_key[32], const uint8_t mac_key[32], const uint8_t id[16],
                    uint32_t seq, uint8_t out[QM_STATS_FILE_SIZE], uint8_t tag_out[32]);
int statsdb_decode(const uint8_t* buf, unsigned len, const uint8_t enc_key[32], const uint8_t mac_key[32],
                   qm_stats* out, uint8_t id_out[16], uint32_t* seq_out, uint8_t tag_out[32]);
int statsdb_pick(const uint8_t* db, unsigned db_len, const uint8_t* bak, unsigned bak_len, const uint8_t enc_key[32],
                 const uint8_t mac_key[32], qm_stats* out, uint32_t* seq_out, uint8_t tag_out[32],
                 unsigned* valid_mask);
void statsdb_note_day(qm_stats* s, uint32_t day, uint32_t words, uint32_t secs);
uint32_t statsdb_fatdate_to_day(uint16_t fat_date);

/* ---- Line diff ---------------------------------------------------------- */

/* diff_lines' one failure: a bad argument, an area smaller than diff_scratch_needed, or more
 * rows needed than max_rows. */
#define DIFF_LINES_FAILED (-1)
int32_t diff_count_lines(const char* text, int32_t len);
size_t diff_scratch_needed(int32_t n, int32_t m);
int32_t diff_lines(const char* a, int32_t alen, const char* b, int32_t blen, qm_diff_row* rows, int32_t max_rows,
                   void* scratch, size_t scratch_size);

#ifdef __cplusplus
}
#endif

#endif
