// The line diff: worked examples, size limits, and random text pairs whose rows must replay both
// texts and keep as many equal rows as their longest common subsequence has lines.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "qm_core_internal.h"

namespace {

struct Row { int op, a, b; bool operator==(const Row&) const = default; };
std::ostream& operator<<(std::ostream& o, const Row& r) { return o << "(" << r.op << "," << r.a << "," << r.b << ")"; }

// qm_diff, or qm_diff_with_scratch in an area of the caller's own; no rows on failure.
std::vector<Row> diff(const std::string& a, const std::string& b, int max_rows = 5000, bool own = false) {
    const int32_t na = int32_t(a.size()), nb = int32_t(b.size());
    std::vector<qm_diff_row> rows(static_cast<size_t>(max_rows));
    std::vector<uint8_t> scratch(qm_diff_scratch_size(a.data(), na, b.data(), nb));
    qm_diff_row* r = rows.data();
    int n = own ? qm_diff_with_scratch(a.data(), na, b.data(), nb, r, max_rows, scratch.data(), scratch.size())
                : qm_diff(a.data(), na, b.data(), nb, r, max_rows);
    std::vector<Row> out;
    for (int i = 0; i < n; ++i) out.push_back({rows[size_t(i)].op, rows[size_t(i)].a_line, rows[size_t(i)].b_line});
    return out;
}

TEST(Diff, WorkedExamplesOnBothScratchAreas) {
    struct Case { std::string a, b; std::vector<Row> rows; } cases[] = {
        {"p\nq", "r", {{1, 0, 0}, {2, 1, -1}}},
        {"line\r\n", "line\n", {{0, 0, 0}, {0, 1, 1}}},
        {"a\n", "a", {{0, 0, 0}, {2, 1, -1}}},
        {"x\ny", "y\nx", {{2, 0, -1}, {0, 1, 0}, {3, -1, 1}}},  // a tie: the deletion comes first
        {"a\nb\nc\nd", "a\nX\nY\nZ\nd", {{0, 0, 0}, {1, 1, 1}, {1, 2, 2}, {3, -1, 3}, {0, 3, 4}}},
    };
    for (const Case& c : cases)
        for (bool own : {false, true}) EXPECT_EQ(diff(c.a, c.b, 5000, own), c.rows) << "A=" << c.a << " B=" << c.b;
}

TEST(Diff, TooLargeOrTooManyRowsIsRefusedAndWritesNothing) {
    // The scratch area holds 1000 lines against 1000, not 1024 against 1024.
    EXPECT_EQ(diff(std::string(999, '\n'), std::string(999, '\n'), 2000).size(), 1000u);
    const std::string big(1023, '\n');
    std::vector<qm_diff_row> rows(3000), one(1, qm_diff_row{-7, -7, -7});
    EXPECT_EQ(qm_diff(big.data(), 1023, big.data(), 1023, rows.data(), 3000), QM_DIFF_TOO_LARGE);
    EXPECT_EQ(diff("x", "y", 1), (std::vector<Row>{{1, 0, 0}})) << "exactly max_rows rows fit";
    EXPECT_EQ(qm_diff("x\ny", 3, "z", 1, one.data(), 1), QM_DIFF_TOO_LARGE);
    EXPECT_EQ(qm_diff("a\nb", 3, "a\nb", 3, one.data(), 1), QM_DIFF_TOO_LARGE) << "two equal rows do not fit in one";
    EXPECT_EQ(one[0].op, -7) << "nothing written on failure";
    std::vector<uint8_t> scratch(qm_diff_scratch_size("a\nb", 3, "a\nc", 3));
    EXPECT_EQ(qm_diff_with_scratch("a\nb", 3, "a\nc", 3, one.data(), 1, scratch.data(), scratch.size() - 9),
              QM_DIFF_TOO_LARGE)
        << "an area that might lose its alignment padding is too small";
}

using Lines = std::vector<std::string>;
Lines split(const std::string& s) {
    Lines out(1);
    for (char c : s)
        if (c == '\n') out.emplace_back();
        else out.back().push_back(c);
    return out;
}

size_t lcs(const Lines& a, const Lines& b) {
    std::vector<std::vector<size_t>> t(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = a.size(); i-- > 0;)
        for (size_t j = b.size(); j-- > 0;)
            t[i][j] = a[i] == b[j] ? t[i + 1][j + 1] + 1 : std::max(t[i + 1][j], t[i][j + 1]);
    return t[0][0];
}

// Texts from a tiny alphabet of lines, so that many lines repeat and the ties matter; or a
// given text with a few lines changed, inserted or deleted.
std::string random_text(std::mt19937& rng, int max_lines, const std::string* from = nullptr) {
    static const char* const pool[] = {"", "a", "b", "c", "the end", "b ", "x"};
    Lines l = from ? split(*from) : Lines(rng() % unsigned(max_lines + 1), "");
    std::string s;
    for (const std::string& line : l) {
        unsigned r = rng() % 10;
        if (!from) s += std::string(pool[r % 7]) + "\n";
        else if (r != 0) s += (r == 1 ? "new" : r == 2 ? "ins\n" + line : line) + "\n";
    }
    if (!s.empty()) s.pop_back();
    return s;
}

TEST(DiffProperty, RowsReplayBothTextsAndEqualRowsAreALongestCommonSubsequence) {
    std::mt19937 rng(20261123);
    for (int round = 0; round < 4000; ++round) {
        const std::string a = random_text(rng, round < 2000 ? 8 : 60);
        std::string b = random_text(rng, 60, rng() % 2 ? &a : nullptr);
        const Lines la = split(a), lb = split(b);
        if (rng() % 5 == 0) b += "\r";  // a CR at the end of a line compares as if absent
        SCOPED_TRACE("round " + std::to_string(round) + "\nA=" + a + "\nB=" + b);
        std::vector<Row> rows = diff(a, b, 200);
        size_t i = 0, j = 0, equal = 0;
        for (const Row& r : rows) {
            bool uses_a = r.op != 3, uses_b = r.op != 2;
            ASSERT_TRUE(r.op >= 0 && r.op <= 3 && r.a == (uses_a ? int(i) : -1) && r.b == (uses_b ? int(j) : -1)) << r;
            ASSERT_TRUE(r.op != 0 || (i < la.size() && j < lb.size() && la[i] == lb[j])) << r;
            equal += r.op == 0, i += uses_a, j += uses_b;
        }
        ASSERT_EQ(std::tuple(i, j, equal), std::tuple(la.size(), lb.size(), lcs(la, lb)));
        ASSERT_EQ(diff(a, b, 200, true), rows) << "the caller's scratch area gives the same rows";
    }
}

}  // namespace
