// Line diff: an exact longest-common-subsequence comparison in a fixed scratch area.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "qm_core_internal.h"

namespace {

struct Line {
    int32_t start;
    int32_t len;
    uint64_t hash;
};
static_assert(sizeof(Line) == 16, "line records are 16 bytes in the scratch budget");

// Pending deletions and additions between two equal rows.
struct Runs {
    int32_t del_start = 0, del_count = 0;
    int32_t add_start = 0, add_count = 0;
};

void split_lines(const char* text, int32_t len, Line* out) {
    int32_t start = 0, k = 0;
    for (int32_t pos = 0; pos <= len; ++pos) {
        if (pos < len && text[pos] != '\n') continue;
        int32_t n = pos - start;
        if (n > 0 && text[start + n - 1] == '\r') --n;  // CRLF and LF texts compare equal
        out[k++] = Line{start, n, fnv1a64(text + start, size_t(n))};
        start = pos + 1;
    }
}

bool lines_equal(const char* a, const Line& x, const char* b, const Line& y) {
    return x.hash == y.hash && x.len == y.len && std::memcmp(a + x.start, b + y.start, size_t(x.len)) == 0;
}

int32_t emit(qm_diff_row* rows, int32_t count, int32_t max_rows, int32_t op, int32_t a, int32_t b) {
    if (count >= max_rows) return DIFF_LINES_FAILED;
    rows[count] = qm_diff_row{op, a, b};
    return count + 1;
}

// Changed pairs first, then surplus deletions, then surplus additions.
int32_t flush_run(qm_diff_row* rows, int32_t count, int32_t max_rows, Runs* r) {
    int32_t paired = r->del_count < r->add_count ? r->del_count : r->add_count;
    for (int32_t k = 0; k < paired && count >= 0; ++k)
        count = emit(rows, count, max_rows, QM_DIFF_CHANGED, r->del_start + k, r->add_start + k);
    for (int32_t k = paired; k < r->del_count && count >= 0; ++k)
        count = emit(rows, count, max_rows, QM_DIFF_DELETED, r->del_start + k, -1);
    for (int32_t k = paired; k < r->add_count && count >= 0; ++k)
        count = emit(rows, count, max_rows, QM_DIFF_ADDED, -1, r->add_start + k);
    *r = Runs{};
    return count;
}

void add_deletion(Runs* r, int32_t i) {
    if (r->del_count++ == 0) r->del_start = i;
}
void add_addition(Runs* r, int32_t j) {
    if (r->add_count++ == 0) r->add_start = j;
}

// L[i][j]: length of the longest common subsequence of A[i..] and B[j..].
void fill_table(const char* a, const Line* la, int32_t n, const char* b, const Line* lb, int32_t m, int32_t* L) {
    const size_t w = size_t(m) + 1;
    for (int32_t j = 0; j <= m; ++j) L[size_t(n) * w + size_t(j)] = 0;
    for (int32_t i = n - 1; i >= 0; --i) {
        int32_t* row = L + size_t(i) * w;
        const int32_t* below = row + w;
        row[m] = 0;
        for (int32_t j = m - 1; j >= 0; --j) {
            if (lines_equal(a, la[i], b, lb[j]))
                row[j] = below[j + 1] + 1;
            else
                row[j] = below[j] > row[j + 1] ? below[j] : row[j + 1];
        }
    }
}

int32_t walk(const char* a, const Line* la, int32_t n, const char* b, const Line* lb, int32_t m, const int32_t* L,
             qm_diff_row* rows, int32_t max_rows) {
    const size_t w = size_t(m) + 1;
    Runs runs;
    int32_t count = 0, i = 0, j = 0;
    while (i < n && j < m) {
        if (lines_equal(a, la[i], b, lb[j])) {
            count = flush_run(rows, count, max_rows, &runs);
            if (count < 0) return DIFF_LINES_FAILED;
            count = emit(rows, count, max_rows, QM_DIFF_EQUAL, i++, j++);
            if (count < 0) return DIFF_LINES_FAILED;
        } else if (L[size_t(i + 1) * w + size_t(j)] < L[size_t(i) * w + size_t(j + 1)]) {
            add_addition(&runs, j++);
        } else {
            add_deletion(&runs, i++);  // deletion wins ties
        }
    }
    for (; i < n; ++i) add_deletion(&runs, i);
    for (; j < m; ++j) add_addition(&runs, j);
    return flush_run(rows, count, max_rows, &runs);
}

// Scratch bytes for n and m lines, or SIZE_MAX when that does not fit a size_t.
size_t scratch_bytes(int32_t n, int32_t m) {
    if (n < 0 || m < 0) return SIZE_MAX;
    size_t rows = size_t(n) + 1, cols = size_t(m) + 1;
    if (rows > SIZE_MAX / 4 / cols) return SIZE_MAX;
    size_t table = rows * cols * 4;
    size_t lines = (size_t(n) + size_t(m)) * sizeof(Line);
    if (table > SIZE_MAX - lines) return SIZE_MAX;
    return table + lines;
}

alignas(8) unsigned char g_scratch[QM_DIFF_SCRATCH_SIZE];

}  // namespace

extern "C" int32_t diff_count_lines(const char* text, int32_t len) {
    if (!text || len < 1) return 1;
    int32_t n = 1;
    for (const char* p = text; (p = static_cast<const char*>(std::memchr(p, '\n', size_t(text + len - p))));) {
        if (n == INT32_MAX) break;  // the scratch check refuses such a text anyway
        ++n;
        if (++p == text + len) break;
    }
    return n;
}

extern "C" size_t diff_scratch_needed(int32_t n, int32_t m) {
    size_t bytes = scratch_bytes(n, m);
    return bytes > SIZE_MAX - 8 ? SIZE_MAX : bytes + 8;
}

extern "C" int32_t diff_lines(const char* a, int32_t alen, const char* b, int32_t blen, qm_diff_row* rows,
                              int32_t max_rows, void* scratch, size_t scratch_size) {
    if (!a || !b || !rows || !scratch || max_rows < 1 || alen < 0 || blen < 0) return DIFF_LINES_FAILED;
    int32_t n = diff_count_lines(a, alen), m = diff_count_lines(b, blen);
    uintptr_t base = reinterpret_cast<uintptr_t>(scratch);
    size_t pad = size_t((8 - base % 8) % 8);
    if (scratch_size < pad || scratch_size - pad < scratch_bytes(n, m)) return DIFF_LINES_FAILED;
    Line* la = reinterpret_cast<Line*>(base + pad);
    Line* lb = la + n;
    int32_t* L = reinterpret_cast<int32_t*>(lb + m);
    split_lines(a, alen, la);
    split_lines(b, blen, lb);
    fill_table(a, la, n, b, lb, m, L);
    return walk(a, la, n, b, lb, m, L, rows, max_rows);
}

extern "C" size_t qm_diff_scratch_size(const char* a, int32_t alen, const char* b, int32_t blen) {
    return diff_scratch_needed(diff_count_lines(a, alen), diff_count_lines(b, blen));
}

extern "C" int32_t qm_diff_with_scratch(const char* a, int32_t alen, const char* b, int32_t blen, qm_diff_row* rows,
                                        int32_t max_rows, void* scratch, size_t scratch_size) {
    if (!a || !b || !rows || !scratch || max_rows < 1 || alen < 0 || blen < 0) return QM_EARG;
    int32_t count = diff_lines(a, alen, b, blen, rows, max_rows, scratch, scratch_size);
    return count >= 0 ? count : QM_DIFF_TOO_LARGE;
}

extern "C" int32_t qm_diff(const char* a, int32_t alen, const char* b, int32_t blen, qm_diff_row* rows,
                           int32_t max_rows) {
    if (!a || !b || !rows || max_rows < 1 || alen < 0 || blen < 0) return QM_EARG;
    // No comparison needs more rows than both texts have lines, so the copy never grows past that.
    int64_t most = int64_t(diff_count_lines(a, alen)) + diff_count_lines(b, blen);
    int32_t room = most < max_rows ? int32_t(most) : max_rows;
    qm_diff_row* tmp = static_cast<qm_diff_row*>(std::malloc(size_t(room) * sizeof(qm_diff_row)));
    if (!tmp) return QM_DIFF_TOO_LARGE;
    int32_t count = diff_lines(a, alen, b, blen, tmp, room, g_scratch, sizeof g_scratch);
    if (count >= 0) std::memcpy(rows, tmp, size_t(count) * sizeof(qm_diff_row));
    std::free(tmp);
    return count >= 0 ? count : QM_DIFF_TOO_LARGE;
}
