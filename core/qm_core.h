/* Quillmate drive core: the portable library that reads and writes a Quillmate
 * drive's key, statistics and document histories, computes line diffs and checks
 * signed update messages. Plain functions over caller-owned buffers and opaque handles.
 *
 * Results: QM_OK (0) or a count on success, a named QM_E* code on failure (see qm_strerror).
 * The few functions whose answer is a truth value, an order or their own code say so.
 *
 * Threads: every function may run on several threads at once, except qm_diff (one static
 * scratch area; qm_diff_with_scratch is the reentrant form) and calls sharing one handle. Files
 * on a drive are opened without following links or blocking, and only regular files are read. */
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

#define QM_RING_SLOTS 1024 /* the most days a drive keeps, and so qm_days_get's largest count */
#define QM_TEXT_LIMIT (4 * 1024 * 1024)        /* the largest document, version or log read */
#define QM_DIFF_SCRATCH_SIZE (4 * 1024 * 1024) /* qm_diff's own area: texts needing more do not compare */

/* ---- Drive directory, key and statistics -------------------------------- */

typedef struct {
    uint32_t day; /* day number, 0 = empty slot */
    uint32_t words;
    uint32_t secs;
} qm_day;

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

typedef struct qm_drive qm_drive;

int qm_core_abi(void);
/* The message for every code above, "unknown error" for any other value. */
const char* qm_strerror(int code);
/* A truth value, not a result code: 1 when the drive's key loads, else 0. */
int qm_is_drive(const char* path);
int qm_provision(const char* path, int force);
qm_drive* qm_open(const char* path, int* err);
void qm_close(qm_drive* h);
int qm_summary_get(const qm_drive* h, qm_summary* out);
int qm_days_get(const qm_drive* h, qm_day* out, int max);
int qm_drive_id_hex(const qm_drive* h, char out[33]);
/* The drive id from the key file of the drive at path, without reading its statistics:
 * QM_OK, QM_EARG, or QM_ENOTDRIVE when the key does not load. */
int qm_key_drive_id_hex(const char* path, char out[33]);
int qm_upload_key_hex(const qm_drive* h, char out[65]);
const uint8_t* qm_upload_key(const qm_drive* h);

/* qm_random_bytes' own failure: the system source failed and buf was zeroed. */
#define QM_RANDOM_FAILED (-1)
int qm_random_bytes(void* buf, size_t n);

/* Day numbers: day 1 is 1980-01-01, 0 none (every output 0). Outputs may be null. */
void qm_day_to_ymd(uint32_t day, unsigned* year, unsigned* month, unsigned* mday);

/* ---- SHA-256 ------------------------------------------------------------ */

typedef struct qm_sha256_ctx {
    uint32_t state[8];
    uint64_t count; /* bytes hashed so far */
    uint8_t buf[64];
} qm_sha256_ctx;

void qm_sha256_init(qm_sha256_ctx* ctx);
void qm_sha256_update(qm_sha256_ctx* ctx, const void* data, size_t len);
void qm_sha256_final(qm_sha256_ctx* ctx, uint8_t out[32]);

/* ---- Statistics export and upload signing ------------------------------- */

/* Writes the statistics as one compact JSON document. Returns the full length (without
 * the NUL) whether or not it fitted; buf may be null and cap 0 to measure. A result of
 * cap or more means the text was cut (and still NUL-terminated). QM_EARG for a null handle. */
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
 * history does not open (QM_EARG), such a version does not read or restore (QM_EIO), and such a
 * folder is not listed by qm_qmv_docs. */
qm_history* qm_history_open(const char* root, const char* doc, int32_t* err);
void qm_history_close(qm_history* h);
int32_t qm_history_count(const qm_history* h);
int32_t qm_history_get(const qm_history* h, int32_t index, qm_version_entry* out);
/* Copy at most cap - 1 bytes and a NUL; return the version's full length. */
int32_t qm_version_read(const qm_history* h, int32_t id, uint8_t* buf, int32_t cap);
int32_t qm_doc_read(const char* root, const char* doc, uint8_t* buf, int32_t cap);
/* Restores version id as a new saved point; stamp is "yyyy-MM-dd HH:mm:ss". A stamp holding a
 * tab, a line break or a path separator is refused (QM_EARG), since it goes into the log and a file
 * name. On failure the document and its history are left as they were. */
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

/* qm_diff's own failure: the texts are too large for the scratch area, or need more than
 * max_rows rows (nothing written then). Its value is the same as QM_EIO's; compare by name. */
#define QM_DIFF_TOO_LARGE (-2)

/* Rows pairing the lines of a and b, QM_EARG or QM_DIFF_TOO_LARGE. Uses a static scratch area:
 * one thread at a time. */
int32_t qm_diff(const char* a, int32_t alen, const char* b, int32_t blen, qm_diff_row* rows, int32_t max_rows);
/* Bytes of scratch area qm_diff_with_scratch needs for these two texts. */
size_t qm_diff_scratch_size(const char* a, int32_t alen, const char* b, int32_t blen);
/* qm_diff in the caller's scratch area, with qm_diff's results (QM_DIFF_TOO_LARGE also for an
 * area smaller than qm_diff_scratch_size), except that rows may hold part of a comparison that
 * failed. Reentrant: threads with their own areas may diff at once. */
int32_t qm_diff_with_scratch(const char* a, int32_t alen, const char* b, int32_t blen, qm_diff_row* rows,
                             int32_t max_rows, void* scratch, size_t scratch_size);

/* ---- Update message, signature and version order ------------------------ */

/* "qm-update-v1\n" platform "\n" channel "\n" version "\n" sha256 "\n" size "\n" and a NUL.
 * QM_OK, QM_EARG (also for a negative size), QM_ESMALL. */
int qm_update_message(const char* platform, const char* channel, const char* version, const char* sha256,
                      int64_t size, char* out, int cap);
/* A truth value, not a result code: 1 when sig is a valid Ed25519 signature of the NUL-terminated
 * message under pub, else 0 (also for a null argument). */
int qm_update_verify(const char* message, const uint8_t sig[64], const uint8_t pub[32]);
/* An order, not a result code: -1, 0 or 1 as a is before, equal to or after b, by the first
 * three numeric components. */
int qm_version_compare(const char* a, const char* b);

#ifdef __cplusplus
}
#endif

#endif
