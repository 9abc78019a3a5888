// The core from several threads at once: opening drives, exporting, hashing and diffing with the
// caller's scratch must give exactly what one thread gets. Meant for ThreadSanitizer runs as well.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "qm_core_internal.h"
#include "statistics.h"
#include "temp_dir.h"

TEST(Threads, OpensExportsHashesAndDiffsAgreeWithOneThread) {
    TempDir drives[4];
    for (uint64_t seed = 1; seed <= 4; ++seed) {
        deck::StatsOptions o;
        o.seed = seed, o.days = 300 + int(seed) * 200;
        o.state = seed == 2 ? deck::StatsState::NewerBak : deck::StatsState::Normal;
        ASSERT_EQ(deck::write_statistics(drives[seed - 1].path(), o, false), "");
    }
    std::vector<std::string> texts(6);
    for (size_t i = 0; i < 6; ++i)
        for (size_t l = 0; l < 40 + 30 * i; ++l) texts[i] += "line " + std::to_string(l * (i + 1) % 97) + "\n";
    // Everything one pass computes, as one string; start picks the drives' order and the texts to diff.
    auto one_pass = [&](size_t start) {
        std::string out;
        for (size_t k = 0; k < 4; ++k) {
            int err = 1;
            qm_drive* h = qm_open(drives[(start + k) % 4].path().c_str(), &err);
            std::string json(size_t(qm_export_json(h, nullptr, 0)) + 1, '\0');
            qm_export_json(h, json.data(), int(json.size()));
            out += std::to_string(err) + json;
            qm_close(h);
        }
        for (const std::string& m : texts) {
            uint8_t digest[32], mac[32];
            sha256(m.data(), m.size(), digest);
            hmac_sha256_ctx c;
            hmac_sha256_init(&c, reinterpret_cast<const uint8_t*>(m.data()), m.size() % 100);
            hmac_sha256_update(&c, m.data(), m.size());
            hmac_sha256_final(&c, mac);
            out.append(reinterpret_cast<char*>(digest), 32).append(reinterpret_cast<char*>(mac), 32);
        }
        const std::string &a = texts[start], &b = texts[start + 1];
        const int32_t na = int32_t(a.size()), nb = int32_t(b.size());
        std::vector<qm_diff_row> rows(4096);
        std::vector<uint8_t> scratch(qm_diff_scratch_size(a.data(), na, b.data(), nb));  // each thread its own
        int32_t n = qm_diff_with_scratch(a.data(), na, b.data(), nb, rows.data(), 4096, scratch.data(), scratch.size());
        for (int32_t i = 0; i < n; ++i) out += std::to_string(rows[size_t(i)].op);
        return out + " " + std::to_string(n);
    };
    const std::vector<std::string> expected{one_pass(0), one_pass(1), one_pass(2), one_pass(3)};
    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (size_t t = 0; t < 4; ++t)
        threads.emplace_back([&, t] { for (int r = 0; r < 25; ++r) mismatches += one_pass(t) != expected[t]; });
    for (std::thread& th : threads) th.join();
    EXPECT_EQ(mismatches.load(), 0);
}
