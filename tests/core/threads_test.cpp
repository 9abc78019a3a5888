// The core from several threads at once: opening drives, exporting, hashing and diffing with the
// caller's scratch must give exactly what one thread gets. Meant for ThreadSanitizer runs as well.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "qm_core.h"
#include "statistics.h"
#include "temp_dir.h"

namespace {

struct Work {
    std::vector<std::unique_ptr<TempDir>> drives;
    std::vector<std::string> messages;
};

// Everything one pass computes, as one string to compare.
std::string one_pass(const Work& w, size_t start) {
    std::string out;
    for (size_t k = 0; k < w.drives.size(); ++k) {
        int err = 1;
        qm_drive* h = qm_open(w.drives[(start + k) % w.drives.size()]->path().c_str(), &err);
        std::string json(size_t(qm_export_json(h, nullptr, 0)) + 1, '\0');
        qm_export_json(h, json.data(), int(json.size()));
        out += std::to_string(err) + json;
        qm_close(h);
    }
    for (const std::string& m : w.messages) {
        uint8_t digest[32], mac[32];
        sha256(m.data(), m.size(), digest);
        hmac_sha256_ctx c;
        hmac_sha256_init(&c, reinterpret_cast<const uint8_t*>(m.data()), m.size() % 100);
        hmac_sha256_update(&c, m.data(), m.size());
        hmac_sha256_final(&c, mac);
        out.append(reinterpret_cast<char*>(digest), 32).append(reinterpret_cast<char*>(mac), 32);
    }
    const std::string& a = w.messages[start % w.messages.size()];
    const std::string& b = w.messages[(start + 1) % w.messages.size()];
    std::vector<qm_diff_row> rows(4096);
    std::vector<uint8_t> scratch(diff_scratch_needed(diff_count_lines(a.data(), int32_t(a.size())),
                                                     diff_count_lines(b.data(), int32_t(b.size()))));
    int32_t n = diff_lines(a.data(), int32_t(a.size()), b.data(), int32_t(b.size()), rows.data(), 4096,
                           scratch.data(), scratch.size());
    out += std::to_string(n);
    for (int32_t i = 0; i < n; ++i) out += std::to_string(rows[size_t(i)].op);
    return out;
}

TEST(Threads, OpensHashesAndDiffsAgreeWithOneThread) {
    Work w;
    for (uint64_t seed = 1; seed <= 4; ++seed) {
        w.drives.push_back(std::make_unique<TempDir>());
        deck::StatsOptions o;
        o.seed = seed;
        o.days = 300 + int(seed) * 200;
        o.state = seed == 2 ? deck::StatsState::NewerBak : deck::StatsState::Normal;
        ASSERT_EQ(deck::write_statistics(w.drives.back()->path(), o, false), "");
    }
    for (int i = 0; i < 6; ++i) {
        std::string m;
        for (int line = 0; line < 40 + 30 * i; ++line) m += "line " + std::to_string(line * (i + 1) % 97) + "\n";
        w.messages.push_back(m);
    }
    std::vector<std::string> expected;
    for (size_t start = 0; start < 4; ++start) expected.push_back(one_pass(w, start));

    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (size_t t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int round = 0; round < 25; ++round)
                if (one_pass(w, t) != expected[t]) ++mismatches;
        });
    for (std::thread& th : threads) th.join();
    EXPECT_EQ(mismatches.load(), 0);
}

}  // namespace
