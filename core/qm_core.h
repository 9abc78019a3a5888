/* Quillmate drive core: the portable library that reads and writes a Quillmate
 * drive's key, statistics and document histories, computes line diffs and checks
 * signed update messages. Plain functions over caller-owned buffers; results are 0
 * (or a count) on success and a small negative code otherwise, see qm_strerror.
 *
 * Threads: every function may run on several threads at once, except qm_diff (one static
 * scratch area; diff_lines is the reentrant form) and calls sharing one handle. Files on a
 * drive are opened without following links or blocking, and only regular files are read. */
#ifndef QM_CORE_H
#define QM_CORE_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define QM_CORE_ABI 3

/* Result codes. */
#define QM_OK 0
#define QM_EARG (-1)       /* bad argument */
#define QM_EIO (-2)        /* could not read or write the drive */
#define QM_ENOTDRIVE (-3)  /* not a Quillmate drive */
#define QM_ENOSTATS (-4)   /* no statistics have been written yet */
#define QM_EBADSTATS (-5)  /* the statistics database could not be read */
#define QM_EHASKEY (-6)    /* this drive already has a key */
#define QM_ERANDOM (-7)    /* the system random number generator failed */
#define QM_ESMALL (-8)     /* buffer too small */
#define QM_ENOHISTORY (-9) /* the document has no readable history log */

#define QM_KEY_FILE_SIZE 120
#define QM_STATS_RECORD_SIZE 12384
#define QM_STATS_FILE_SIZE 12460
#define QM_RING_SLOTS 1024
#define QM_TEXT_LIMIT (4 * 1024 * 1024)
#define QM_DIFF_SCRATCH_SIZE (4 * 1024 * 1024)

/* ---- Crypto primitives ------------------------------------------------- */

typedef struct {
    uint32_t state[8];
    uint64_t count; /* bytes hashed so far */
    uint8_t buf[64];
} sha256_ctx;

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
 * processor has one; the others force a path (for tests and benchmarks). Returns 0,
 * or -1 when the requested path is not available here. Safe while other threads hash:
 * each block run uses one path or the other. */
#define QM_SHA256_AUTO 0
#define QM_SHA256_PORTABLE 1
#define QM_SHA256_HARDWARE 2
int sha256_select(int impl);
const char* sha256_impl_name(void);

void hmac_sha256_init(hmac_sha256_ctx* ctx, const uint8_t* key, size_t key_len);
void hmac_sha256_update(hmac_sha256_ctx* ctx, const void* data, size_t len);
void hmac_sha256_final(hmac_sha256_ctx* ctx, uint8_t out[32]);

int ct_equal(const uint8_t* a, const uint8_t* b, size_t n);

uint64_t fnv1a64(const void* data, size_t len);
uint64_t fnv1a64_update(uint64_t h, const void* data, size_t len);

void qm_sha512(const void* data, size_t len, uint8_t out[64]);
void sha512_block(uint64_t state[8], const uint8_t block[128]);

#define QM_ED25519_MAX_MESSAGE 256
int qm_ed25519_verify(const void* msg, size_t msg_len, const uint8_t sig[64], const uint8_t pub[32]);

/* ---- Drive directory and key ------------------------------------------- */

typedef struct {
    uint8_t drive_id[16];
    uint8_t enc_key[32];
    uint8_t mac_key[32];
    uint8_t upload_key[32];
} qm_drive_key;

typedef struct {
    uint32_t day; /* day number, 0 = empty slot */
    uint32_t words;
    uint32_t secs;
} qm_day;

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

typedef struct {
    qm_stats stats;
    qm_drive_key key;
    uint32_t seq;
    uint8_t chain_tag[32];
    uint32_t from_backup;
    uint32_t both_valid;
    qm_day* days; /* QM_RING_SLOTS entries, n_days of them valid, ascending by day */
    uint32_t n_days;
} qm_drive;

typedef struct {
    uint32_t sessions, write_secs, longest_secs, words, chars, sentences, newlines, saves;
    uint32_t created;
    uint32_t pages;
    uint32_t streak_current;
    uint32_t streak_best;
    uint32_t days_written;
    uint32_t first_day;
    uint32_t last_day;
    uint32_t seq;
    uint32_t n_days;
    uint8_t drive_id[16];
    uint8_t chain_tag[32];
    uint32_t from_backup;
    uint32_t both_valid;
} qm_summary;

int qm_core_abi(void);
/* The message for every code above, "unknown error" for any other value. */
const char* qm_strerror(int code);
int qm_is_drive(const char* path);
int qm_provision(const char* path, int force);
qm_drive* qm_open(const char* path, int* err);
void qm_close(qm_drive* h);
int qm_summary_get(const qm_drive* h, qm_summary* out);
int qm_days_get(const qm_drive* h, qm_day* out, int max);
int qm_drive_id_hex(const qm_drive* h, char out[33]);
int qm_upload_key_hex(const qm_drive* h, char out[65]);
const uint8_t* qm_upload_key(const qm_drive* h);
int qm_random_bytes(void* buf, size_t n);

/* Key file packing, shared with the deck. */
void drivekey_pack(const qm_drive_key* k, uint8_t out[QM_KEY_FILE_SIZE]);
int drivekey_unpack(const uint8_t* buf, unsigned len, qm_drive_key* out);
void drivekey_derive(const uint8_t* master, size_t len, qm_drive_key* out);

void u64_to_hex16(uint64_t v, char out[17]);
int hex16_to_u64(const char* s, uint64_t* out);

/* ---- Statistics database ------------------------------------------------ */

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
void qm_day_to_ymd(uint32_t day, unsigned* year, unsigned* month, unsigned* mday);

/* ---- Statistics export and upload signing ------------------------------- */

/* Writes the statistics as one compact JSON document. Returns the full length (without
 * the NUL) whether or not it fitted; buf may be null and cap 0 to measure. A result of
 * cap or more means the text was cut (and still NUL-terminated). -1 for a null handle. */
int qm_export_json(const qm_drive* h, char* buf, int cap);

/* HMAC-SHA-256 under the upload key over timestamp "." body, as 64 lower-case hex
 * digits and a NUL. */
int qm_sign_upload(const qm_drive* h, const char* timestamp, const uint8_t* body, int body_len, char out[65]);

/* ---- Document version histories ----------------------------------------- */

typedef struct {
    int32_t id;
    int32_t parent;
    int32_t kind; /* 't' saved point, 'x' changed elsewhere, anything else automatic */
    uint32_t length;
    uint64_t hash; /* always 0 when read from a log */
    char branch[32];
    char file[64];
    char when[24];
    char tag[64];
} qm_version_entry;

typedef struct qm_history qm_history;

/* Names read from a drive (document names, version file names) that contain "/", a backslash or
 * a control character (bytes 1 to 31 and 127), are empty, or are "." or "..", are refused: such a
 * history does not open (-1), such a version does not read or restore (-2), and such a folder is
 * not listed by qm_qmv_docs. */
qm_history* qm_history_open(const char* root, const char* doc, int32_t* err);
void qm_history_close(qm_history* h);
int32_t qm_history_count(const qm_history* h);
int32_t qm_history_get(const qm_history* h, int32_t index, qm_version_entry* out);
/* Copy at most cap - 1 bytes and a NUL; return the version's full length. */
int32_t qm_version_read(const qm_history* h, int32_t id, uint8_t* buf, int32_t cap);
int32_t qm_doc_read(const char* root, const char* doc, uint8_t* buf, int32_t cap);
/* Restores version id as a new saved point; stamp is "yyyy-MM-dd HH:mm:ss". A stamp holding a
 * tab, a line break or a path separator is refused (-1), since it goes into the log and a file name.
 * On failure the document and its history are left as they were. */
int32_t qm_qmv_revert(qm_history* h, int32_t id, const char* stamp);
/* Names of the documents with a history, each followed by a line feed; returns the count. */
int32_t qm_qmv_docs(const char* root, char* out, int32_t cap);

/* ---- Line diff ---------------------------------------------------------- */

#define QM_DIFF_EQUAL 0
#define QM_DIFF_CHANGED 1
#define QM_DIFF_DELETED 2
#define QM_DIFF_ADDED 3

typedef struct {
    int32_t op;
    int32_t a_line; /* -1 for an added row */
    int32_t b_line; /* -1 for a deleted row */
} qm_diff_row;

/* Rows pairing the lines of a and b; -1 bad argument, -2 too large or more than max_rows
 * rows needed (nothing written then). Uses a static scratch area: one thread at a time. */
int32_t qm_diff(const char* a, int32_t alen, const char* b, int32_t blen, qm_diff_row* rows, int32_t max_rows);
int32_t diff_count_lines(const char* text, int32_t len);
size_t diff_scratch_needed(int32_t n, int32_t m);
/* qm_diff in the caller's scratch area of at least diff_scratch_needed(lines of a, lines of b)
 * bytes; results as qm_diff's, and -1 also for an area too small. Reentrant: threads with their
 * own scratch areas may diff at the same time. */
int32_t diff_lines(const char* a, int32_t alen, const char* b, int32_t blen, qm_diff_row* rows, int32_t max_rows,
                   void* scratch, size_t scratch_size);

/* ---- Update message, signature and version order ------------------------ */

/* "qm-update-v1\n" platform "\n" channel "\n" version "\n" sha256 "\n" size "\n" and a NUL.
 * 0, -1 bad argument (or negative size), -8 buffer too small. */
int qm_update_message(const char* platform, const char* channel, const char* version, const char* sha256,
                      int64_t size, char* out, int cap);
/* 1 when sig is a valid Ed25519 signature of the NUL-terminated message under pub. */
int qm_update_verify(const char* message, const uint8_t sig[64], const uint8_t pub[32]);
/* -1, 0 or 1 by the first three numeric components. */
int qm_version_compare(const char* a, const char* b);

#ifdef __cplusplus
}
#endif

#endif
