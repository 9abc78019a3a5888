// The statistics export and the upload signature, on drives written through the core's write side.
#include <gtest/gtest.h>
#include <openssl/hmac.h>

#include <algorithm>
#include <random>
#include <tuple>
#include <vector>

#include "qm_core_internal.h"
#include "temp_dir.h"

namespace {

// Provisions a drive, writes the given record as one statistics copy under its keys and opens it.
struct StatsDrive {
    TempDir dir;
    qm_drive* h = nullptr;
    explicit StatsDrive(const qm_stats* s = nullptr, const char* file = "stats.db", uint32_t seq = 41) {
        qm_stats empty;
        statsdb_reset(&empty);
        EXPECT_EQ(qm_provision(dir.path().c_str(), 0), 0);
        const std::string raw = slurp(dir / ".qm/drive.key");
        qm_drive_key key{};
        EXPECT_EQ(drivekey_unpack(reinterpret_cast<const uint8_t*>(raw.data()), unsigned(raw.size()), &key), 0);
        std::vector<uint8_t> img(QM_STATS_FILE_SIZE);
        statsdb_encode(s ? s : &empty, key.enc_key, key.mac_key, key.drive_id, seq, img.data(), nullptr);
        spit(dir / file, std::string(img.begin(), img.end()));
        int err = 1;
        h = qm_open(dir.path().c_str(), &err);
        EXPECT_TRUE(h && err == 0);
    }
    ~StatsDrive() { qm_close(h); }
    std::string json() const {
        std::string out(size_t(qm_export_json(h, nullptr, 0)) + 1, '?');
        out.resize(size_t(std::max(qm_export_json(h, out.data(), int(out.size())), 0)));
        return out;
    }
};

std::string hex(const uint8_t* p, size_t n) {
    std::string s;
    for (size_t i = 0; i < n; ++i) s += "0123456789abcdef"[p[i] >> 4], s += "0123456789abcdef"[p[i] & 15];
    return s;
}

TEST(Export, WholeDocumentDaysInDateOrderBackupSourceAndSmallBuffers) {
    qm_stats s;
    statsdb_reset(&s);
    s.sessions = 12, s.write_secs = 3600, s.longest_secs = 900, s.words = 4321, s.chars = 25000;
    s.sentences = 300, s.newlines = 120, s.saves = 48, s.created = 3;
    // Added out of date order: the ring keeps addition order, the export sorts.
    for (auto [day, words, secs] : {std::tuple{367u, 10u, 20u}, {1u, 500u, 600u}, {60u, 7u, 8u}, {366u, 1u, 2u}})
        statsdb_note_day(&s, day, words, secs);
    StatsDrive drive(&s);
    qm_summary sum;
    ASSERT_EQ(qm_summary_get(drive.h, &sum), 0);
    EXPECT_EQ(drive.json(), "{\"format\":2,\"drive_id\":\"" + hex(sum.drive_id, 16) + "\",\"seq\":41,\"chain_tag\":\"" +
                                hex(sum.chain_tag, 32) + "\",\"source\":\"stats.db\",\"counters\":{\"sessions\":12,"
                                "\"write_secs\":3600,\"longest_secs\":900,\"words\":4321,\"chars\":25000,"
                                "\"sentences\":300,\"newlines\":120,\"saves\":48,\"created\":3},\"device_streak\":"
                                "{\"current\":1,\"best\":1,\"days_written\":4},\"days\":[{\"date\":\"1980-01-01\","
                                "\"words\":500,\"secs\":600},{\"date\":\"1980-02-29\",\"words\":7,\"secs\":8},"
                                "{\"date\":\"1980-12-31\",\"words\":1,\"secs\":2},{\"date\":\"1981-01-01\","
                                "\"words\":10,\"secs\":20}]}");
    // A backup copy with no days; buffers of every size are cut, terminated and told the full length.
    StatsDrive bak(nullptr, "stats.bak", 3);
    const std::string whole = bak.json();
    const int n = int(whole.size());
    EXPECT_NE(whole.find("\"source\":\"stats.bak\""), std::string::npos);
    EXPECT_EQ(whole.substr(whole.size() - 10), "\"days\":[]}");
    EXPECT_EQ(qm_export_json(bak.h, nullptr, 50), n);
    for (int cap : {-5, 1, 2, 17, 33, n / 2, n - 1, n, n + 1}) {
        std::string b(size_t(n) + 8, '#');
        EXPECT_EQ(qm_export_json(bak.h, b.data(), cap), n);
        const size_t kept = size_t(std::max(0, std::min(n, cap - 1)));
        EXPECT_EQ(b.substr(0, kept + 2), cap < 1 ? "##" : whole.substr(0, kept) + '\0' + '#') << "cap " << cap;
    }
}

TEST(Sign, MatchesAnIndependentHmacOverTimestampDotBody) {
    StatsDrive drive;
    std::mt19937 rng(5);
    for (int round = 0; round < 40; ++round) {  // HMAC itself is checked against OpenSSL in crypto_test
        const std::string ts = round ? std::to_string(rng()) : "0";
        const size_t len = round ? rng() % 3000 : 0;  // the first round signs an empty body
        std::vector<uint8_t> body(len + 1);
        for (uint8_t& b : body) b = uint8_t(rng());
        const std::string msg = ts + "." + std::string(body.begin(), body.begin() + long(len));
        uint8_t want[32];
        unsigned want_len = 0;
        HMAC(EVP_sha256(), qm_upload_key(drive.h), 32, reinterpret_cast<const uint8_t*>(msg.data()), msg.size(), want,
             &want_len);
        char out[65];
        ASSERT_EQ(qm_sign_upload(drive.h, ts.c_str(), body.data(), int(len), out), 0);
        ASSERT_EQ(std::string(out), hex(want, want_len)) << "round " << round;
    }
}

}  // namespace
