// The line diff: worked examples, size limits, and a property test against the longest common
// subsequence, with GNU diff --minimal as the outside judge on a subset.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "qm_core.h"
#include "temp_dir.h"

namespace {

struct Row {
    int op, a, b;
    bool operator==(const Row&) const = default;
};

std::ostream& operator<<(std::ostream& o, const Row& r) { return o << "(" << r.op << "," << r.a << "," << r.b << ")"; }

std::vector<Row> diff(const std::string& a, const std::string& b, int max_rows = 5000, int* rc = nullptr) {
    std::vector<qm_diff_row> rows(size_t(max_rows), qm_diff_row{-7, -7, -7});
    int n = qm_diff(a.data(), int32_t(a.size()), b.data(), int32_t(b.size()), rows.data(), max_rows);
    if (rc) *rc = n;
    std::vector<Row> out;
    for (int i = 0; i < n; ++i) out.push_back({rows[size_t(i)].op, rows[size_t(i)].a_line, rows[size_t(i)].b_line});
    return out;
}

TEST(Diff, WorkedExamples) {
    struct Case {
        std::string a, b;
        std::vector<Row> rows;
    } cases[] = {
        {"", "", {{0, 0, 0}}},
        {"x\ny", "x\nz", {{0, 0, 0}, {1, 1, 1}}},
        {"a\nb\nc", "a\nc", {{0, 0, 0}, {2, 1, -1}, {0, 2, 1}}},
        {"a", "b\na", {{3, -1, 0}, {0, 0, 1}}},
        {"p\nq", "r", {{1, 0, 0}, {2, 1, -1}}},
        {"line\r\n", "line\n", {{0, 0, 0}, {0, 1, 1}}},
        {"a\n", "a", {{0, 0, 0}, {2, 1, -1}}},
        {"x\ny", "y\nx", {{2, 0, -1}, {0, 1, 0}, {3, -1, 1}}},  // a tie: the deletion comes first
        {"a\nb\nc\nd", "a\nX\nY\nZ\nd", {{0, 0, 0}, {1, 1, 1}, {1, 2, 2}, {3, -1, 3}, {0, 3, 4}}},
    };
    for (const Case& c : cases) EXPECT_EQ(diff(c.a, c.b), c.rows) << "A=" << c.a << " B=" << c.b;
}

TEST(Diff, LineCountingAndScratchBudget) {
    EXPECT_EQ(diff_count_lines("", 0), 1);
    EXPECT_EQ(diff_count_lines("a\n", 2), 2);
    EXPECT_EQ(diff_count_lines("a\nb\n\n", 5), 4);
    EXPECT_EQ(diff_count_lines("a\nb", -3), 1);
    EXPECT_EQ(diff_scratch_needed(1000, 1000), size_t(2000 * 16 + 1001 * 1001 * 4 + 8));
    EXPECT_LE(diff_scratch_needed(1000, 1000), size_t(QM_DIFF_SCRATCH_SIZE));
    EXPECT_GT(diff_scratch_needed(1024, 1024), size_t(QM_DIFF_SCRATCH_SIZE));

    std::vector<qm_diff_row> rows(4);
    std::vector<uint8_t> scratch(diff_scratch_needed(2, 2));
    EXPECT_EQ(diff_lines("a\nb", 3, "a\nc", 3, rows.data(), 4, scratch.data(), scratch.size()), 2);
    EXPECT_EQ(diff_lines("a\nb", 3, "a\nc", 3, rows.data(), 4, scratch.data(), scratch.size() - 9), -1)
        << "an area that might lose its alignment padding is too small";
}

std::string numbered_lines(int n, const char* prefix) {
    std::string s;
    for (int i = 0; i < n; ++i) s += prefix + std::to_string(i) + "\n";
    s.pop_back();
    return s;
}

TEST(Diff, SizeAndRowLimitsReportMinusTwoAndWriteNothing) {
    int rc = 0;
    std::vector<Row> rows = diff(numbered_lines(1000, "a"), numbered_lines(1000, "a"), 2000, &rc);
    EXPECT_EQ(rc, 1000);
    diff(numbered_lines(1024, "a"), numbered_lines(1024, "b"), 3000, &rc);
    EXPECT_EQ(rc, -2);

    EXPECT_EQ(diff("x", "y", 1, &rc), (std::vector<Row>{{1, 0, 0}}));
    std::vector<qm_diff_row> one(1, qm_diff_row{-7, -7, -7});
    EXPECT_EQ(qm_diff("x\ny", 3, "z", 1, one.data(), 1), -2);
    EXPECT_EQ(one[0].op, -7) << "nothing written on failure";
    EXPECT_EQ(qm_diff("a\nb", 3, "a\nb", 3, one.data(), 1), -2) << "two equal rows do not fit in one";
}

using Lines = std::vector<std::string>;

Lines split(const std::string& s) {
    Lines out(1);
    for (char c : s) {
        if (c == '\n')
            out.emplace_back();
        else
            out.back().push_back(c);
    }
    return out;
}

// Replays the rows: both line sequences come back in order, and equal rows join equal lines.
::testing::AssertionResult rows_rebuild(const Lines& a, const Lines& b, const std::vector<Row>& rows) {
    size_t i = 0, j = 0;
    for (const Row& r : rows) {
        bool uses_a = r.op != 3, uses_b = r.op != 2;
        if (r.op < 0 || r.op > 3) return ::testing::AssertionFailure() << "bad op " << r;
        if (uses_a ? r.a != int(i) : r.a != -1) return ::testing::AssertionFailure() << "A out of order at " << r;
        if (uses_b ? r.b != int(j) : r.b != -1) return ::testing::AssertionFailure() << "B out of order at " << r;
        if (r.op == 0 && a[i] != b[j]) return ::testing::AssertionFailure() << "equal row joins unequal lines " << r;
        i += uses_a, j += uses_b;
    }
    if (i != a.size() || j != b.size()) return ::testing::AssertionFailure() << "lines left over";
    return ::testing::AssertionSuccess();
}

// Texts from a tiny alphabet of lines, so that many lines repeat and the ties matter.
std::string random_text(std::mt19937& rng, int max_lines) {
    static const char* const pool[] = {"", "a", "b", "c", "the end", "b ", "x"};
    int n = int(rng() % unsigned(max_lines + 1));
    std::string s;
    for (int k = 0; k < n; ++k) s += std::string(k ? "\n" : "") + pool[rng() % 7];
    return s;
}

std::string mutate(const std::string& text, std::mt19937& rng) {
    Lines l = split(text);
    for (int e = int(rng() % 4); e >= 0; --e) {
        size_t at = rng() % l.size();
        switch (rng() % 3) {
            case 0: l[at] = "new " + std::to_string(rng() % 5); break;
            case 1: l.insert(l.begin() + long(at), "ins"); break;
            default:
                if (l.size() > 1) l.erase(l.begin() + long(at));
        }
    }
    std::string s;
    for (size_t k = 0; k < l.size(); ++k) s += (k ? "\n" : "") + l[k];
    return s;
}

// Unchanged lines of A according to GNU diff: every line of A it does not print with "< ".
int unchanged_by_gnu_diff(const TempDir& dir, const std::string& a, const std::string& b, size_t a_lines) {
    spit(dir / "a", a + "\n");  // each of our lines, LF-terminated, is one line to diff
    spit(dir / "b", b + "\n");
    std::string cmd = "diff --minimal '" + (dir / "a") + "' '" + (dir / "b") + "'";
    FILE* p = popen(cmd.c_str(), "r");
    if (!p) return -1;
    int removed = 0;
    char line[4096];
    bool at_line_start = true;
    while (std::fgets(line, sizeof line, p)) {
        if (at_line_start && line[0] == '<' && line[1] == ' ') ++removed;
        at_line_start = std::strchr(line, '\n') != nullptr;
    }
    int status = pclose(p);
    if (!WIFEXITED(status) || WEXITSTATUS(status) > 1) return -1;
    return int(a_lines) - removed;
}

TEST(DiffProperty, RowsReplayToBothTextsAndEqualRowsAreALongestCommonSubsequence) {
    TempDir dir;
    std::mt19937 rng(20261123);
    int judged = 0;
    for (int round = 0; round < 4000; ++round) {
        std::string a = random_text(rng, round < 2000 ? 8 : 60);
        std::string b = rng() % 2 ? mutate(a, rng) : random_text(rng, 60);
        if (rng() % 5 == 0) b += "\r";  // a CR at the end of a line compares as if absent
        int rc = 0;
        std::vector<Row> rows = diff(a, b, 200, &rc);
        ASSERT_GE(rc, 1) << "round " << round;
        std::string b_plain = b;
        if (!b_plain.empty() && b_plain.back() == '\r') b_plain.pop_back();
        Lines la = split(a), lb = split(b_plain);
        ASSERT_TRUE(rows_rebuild(la, lb, rows)) << "round " << round << "\nA=" << a << "\nB=" << b;
        if (round % 13 != 0) continue;
        int equal = 0;
        for (const Row& r : rows) equal += r.op == 0;
        int gnu = unchanged_by_gnu_diff(dir, a, b_plain, la.size());
        ASSERT_EQ(equal, gnu) << "round " << round << "\nA=" << a << "\nB=" << b_plain;
        ++judged;
    }
    EXPECT_GT(judged, 300);
}

}  // namespace
