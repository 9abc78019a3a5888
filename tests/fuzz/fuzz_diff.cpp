// The line diff on arbitrary text pairs, with its row invariants checked on every run:
// replaying the rows rebuilds both line sequences, and equal rows join equal lines.
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "qm_core_internal.h"

namespace {

// Lines as the diff sees them: split at line feeds, one trailing CR dropped.
std::vector<std::string> lines_of(const char* t, size_t len) {
    std::vector<std::string> out;
    size_t start = 0;
    for (size_t pos = 0; pos <= len; ++pos) {
        if (pos < len && t[pos] != '\n') continue;
        size_t n = pos - start;
        if (n > 0 && t[start + n - 1] == '\r') --n;
        out.emplace_back(t + start, n);
        start = pos + 1;
    }
    return out;
}

void check_rows(const std::vector<std::string>& a, const std::vector<std::string>& b, const qm_diff_row* rows,
                int32_t count) {
    size_t i = 0, j = 0;
    for (int32_t k = 0; k < count; ++k) {
        const qm_diff_row& r = rows[k];
        if (r.op < 0 || r.op > 3) std::abort();
        bool uses_a = r.op != QM_DIFF_ADDED, uses_b = r.op != QM_DIFF_DELETED;
        if (uses_a ? r.a_line != int32_t(i) : r.a_line != -1) std::abort();
        if (uses_b ? r.b_line != int32_t(j) : r.b_line != -1) std::abort();
        if (r.op == QM_DIFF_EQUAL && a[i] != b[j]) std::abort();
        i += uses_a;
        j += uses_b;
    }
    if (i != a.size() || j != b.size()) std::abort();
}

}  // namespace

// The first byte picks where A ends; the rest is A then B.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const char* text = reinterpret_cast<const char*>(data + 1);
    size_t len = size - 1;
    size_t split = len ? (size_t(data[0]) * 257 + len / 3) % (len + 1) : 0;
    std::vector<std::string> a = lines_of(text, split), b = lines_of(text + split, len - split);
    int32_t max_rows = int32_t(a.size() + b.size());
    std::vector<qm_diff_row> rows(static_cast<size_t>(max_rows));
    int32_t n = qm_diff(text, int32_t(split), text + split, int32_t(len - split), rows.data(), max_rows);
    if (n == -2) {
        if (diff_scratch_needed(int32_t(a.size()), int32_t(b.size())) <= QM_DIFF_SCRATCH_SIZE - 8) std::abort();
        return 0;
    }
    if (n < 1 || n > max_rows) std::abort();
    check_rows(a, b, rows.data(), n);
    return 0;
}
