// qm_diff on two 1,000-line texts, similar and fully different, against hashing both texts.
#include <random>
#include <string>
#include <vector>

#include "bench_timer.h"
#include "qm_core_internal.h"

namespace {

std::string line(std::mt19937& rng, const char* prefix) {
    std::string s = prefix;
    for (int w = 0, n = 6 + int(rng() % 10); w < n; ++w) s += " word" + std::to_string(rng() % 500);
    return s + ".\n";
}

std::string text(std::mt19937& rng, int lines, const char* prefix) {
    std::string s;
    for (int i = 0; i < lines; ++i) s += line(rng, prefix);
    return s;
}

// One line in twenty rewritten, one in fifty removed, one in fifty inserted.
std::string edited(const std::string& t, std::mt19937& rng) {
    std::string out;
    size_t start = 0;
    for (int i = 0; start < t.size(); ++i) {
        size_t nl = t.find('\n', start);
        std::string l = t.substr(start, nl - start + 1);
        start = nl + 1;
        if (i % 50 == 7) continue;
        if (i % 50 == 30) out += line(rng, "Inserted");
        out += i % 20 == 3 ? line(rng, "Rewritten") : l;
    }
    return out;
}

void run(const char* what, const std::string& a, const std::string& b) {
    std::vector<qm_diff_row> rows(4000);
    int32_t n = 0;
    double diff_ms = median_ms(50, [&] {
        n = qm_diff(a.data(), int32_t(a.size()), b.data(), int32_t(b.size()), rows.data(), int32_t(rows.size()));
        keep(n);
    });
    double hash_ms = median_ms(50, [&] {
        uint64_t h = fnv1a64(a.data(), a.size()) ^ fnv1a64(b.data(), b.size());
        keep(h);
    });
    char label[96];
    std::snprintf(label, sizeof label, "%s (%d x %d lines, %d rows)", what, diff_count_lines(a.data(), int32_t(a.size())),
                  diff_count_lines(b.data(), int32_t(b.size())), n);
    report(label, diff_ms, "fnv1a64 of both texts", hash_ms, 10);
}

}  // namespace

int main() {
    std::mt19937 rng(1);
    std::string a = text(rng, 999, "Line");  // 999 lines and the empty one after the last LF
    std::string similar = edited(a, rng);
    while (diff_count_lines(similar.data(), int32_t(similar.size())) < 1000) similar += line(rng, "Tail");
    while (diff_count_lines(similar.data(), int32_t(similar.size())) > 1000) similar.resize(similar.rfind('\n', similar.size() - 2) + 1);
    std::string different = text(rng, 999, "Other");
    run("qm_diff, similar texts", a, similar);
    run("qm_diff, fully different texts", a, different);
    return 0;
}
