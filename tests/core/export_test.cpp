// The statistics export and the upload signature, on drives written through the core's write side.
#include <gtest/gtest.h>
#include <openssl/hmac.h>

#include <random>
#include <string>
#include <vector>

#include "qm_core.h"
#include "temp_dir.h"

namespace {

// Provisions a drive and writes one statistics copy under its keys.
class StatsDrive {
public:
    explicit StatsDrive(const char* file = "stats.db") {
        EXPECT_EQ(qm_provision(dir_.path().c_str(), 0), 0);
        std::string raw = slurp(dir_ / ".qm/drive.key");
        EXPECT_EQ(drivekey_unpack(reinterpret_cast<const uint8_t*>(raw.data()), unsigned(raw.size()), &key_), 0);
        statsdb_reset(&stats_);
        file_ = file;
    }
    qm_stats& stats() { return stats_; }
    qm_drive* open(uint32_t seq = 41) {
        std::vector<uint8_t> image(QM_STATS_FILE_SIZE);
        statsdb_encode(&stats_, key_.enc_key, key_.mac_key, key_.drive_id, seq, image.data(), nullptr);
        spit(dir_ / file_, std::string(image.begin(), image.end()));
        int err = 0;
        qm_drive* h = qm_open(dir_.path().c_str(), &err);
        EXPECT_EQ(err, 0);
        return h;
    }

private:
    TempDir dir_;
    qm_drive_key key_{};
    qm_stats stats_{};
    std::string file_;
};

std::string export_of(const qm_drive* h) {
    int n = qm_export_json(h, nullptr, 0);
    std::string s(size_t(n) + 1, '?');
    EXPECT_EQ(qm_export_json(h, s.data(), n + 1), n);
    s.resize(size_t(n));
    return s;
}

std::string hex(const uint8_t* p, size_t n) {
    static const char d[] = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < n; ++i) s += d[p[i] >> 4], s += d[p[i] & 15];
    return s;
}

TEST(Export, WholeDocumentWithDaysInDateOrder) {
    StatsDrive drive;
    qm_stats& s = drive.stats();
    s.sessions = 12, s.write_secs = 3600, s.longest_secs = 900, s.words = 4321, s.chars = 25000;
    s.sentences = 300, s.newlines = 120, s.saves = 48, s.created = 3;
    // Added out of date order: the ring keeps addition order, the export sorts.
    statsdb_note_day(&s, 367, 10, 20);
    statsdb_note_day(&s, 1, 500, 600);
    statsdb_note_day(&s, 60, 7, 8);
    statsdb_note_day(&s, 366, 1, 2);
    qm_drive* h = drive.open(41);
    ASSERT_NE(h, nullptr);
    qm_summary sum;
    ASSERT_EQ(qm_summary_get(h, &sum), 0);

    std::string expected = "{\"format\":2,\"drive_id\":\"" + hex(sum.drive_id, 16) + "\",\"seq\":41,\"chain_tag\":\"" +
                           hex(sum.chain_tag, 32) +
                           "\",\"source\":\"stats.db\",\"counters\":{\"sessions\":12,\"write_secs\":3600,"
                           "\"longest_secs\":900,\"words\":4321,\"chars\":25000,\"sentences\":300,\"newlines\":120,"
                           "\"saves\":48,\"created\":3},\"device_streak\":{\"current\":1,\"best\":1,\"days_written\":4},"
                           "\"days\":[{\"date\":\"1980-01-01\",\"words\":500,\"secs\":600},"
                           "{\"date\":\"1980-02-29\",\"words\":7,\"secs\":8},"
                           "{\"date\":\"1980-12-31\",\"words\":1,\"secs\":2},"
                           "{\"date\":\"1981-01-01\",\"words\":10,\"secs\":20}]}";
    EXPECT_EQ(export_of(h), expected);
    qm_close(h);
}

TEST(Export, BackupSourceAndEmptyDayList) {
    StatsDrive drive("stats.bak");
    qm_drive* h = drive.open(3);
    ASSERT_NE(h, nullptr);
    std::string json = export_of(h);
    EXPECT_NE(json.find("\"source\":\"stats.bak\""), std::string::npos);
    EXPECT_EQ(json.substr(json.size() - 10), "\"days\":[]}");
    qm_close(h);
}

TEST(Export, SmallBuffersAreCutTerminatedAndReportTheFullLength) {
    StatsDrive drive;
    statsdb_note_day(&drive.stats(), 9000, 1, 1);
    qm_drive* h = drive.open();
    ASSERT_NE(h, nullptr);
    const std::string whole = export_of(h);
    const int n = int(whole.size());

    EXPECT_EQ(qm_export_json(h, nullptr, 0), n);
    EXPECT_EQ(qm_export_json(h, nullptr, 50), n);
    std::string buf(size_t(n) + 8, '#');
    EXPECT_EQ(qm_export_json(h, buf.data(), -5), n);
    EXPECT_EQ(buf[0], '#') << "a negative capacity writes nothing";
    EXPECT_EQ(qm_export_json(h, buf.data(), 1), n);
    EXPECT_EQ(buf[0], '\0');
    for (int cap : {2, 17, 33, n / 2, n - 1, n, n + 1}) {
        std::string b(size_t(n) + 8, '#');
        EXPECT_EQ(qm_export_json(h, b.data(), cap), n);
        size_t kept = size_t(std::min(n, cap - 1));
        EXPECT_EQ(std::string(b.c_str()), whole.substr(0, kept)) << "cap " << cap;
        EXPECT_EQ(b[size_t(cap)], '#') << "nothing past cap";
    }
    qm_close(h);
}

TEST(Sign, MatchesAnIndependentHmacOverTimestampDotBody) {
    StatsDrive drive;
    qm_drive* h = drive.open();
    ASSERT_NE(h, nullptr);
    const uint8_t* key = qm_upload_key(h);
    std::mt19937 rng(5);
    for (int round = 0; round < 500; ++round) {
        std::string ts = std::to_string(rng());
        std::vector<uint8_t> body(rng() % 3000);
        for (uint8_t& b : body) b = uint8_t(rng());
        std::string msg = ts + "." + std::string(body.begin(), body.end());
        uint8_t want[32];
        unsigned want_len = 0;
        HMAC(EVP_sha256(), key, 32, reinterpret_cast<const uint8_t*>(msg.data()), msg.size(), want, &want_len);
        char out[65];
        ASSERT_EQ(qm_sign_upload(h, ts.c_str(), body.data(), int(body.size()), out), 0);
        ASSERT_EQ(std::string(out), hex(want, want_len)) << "round " << round;
    }
    qm_close(h);
}

TEST(Sign, EmptyBodyAndTimestamps) {
    StatsDrive drive;
    qm_drive* h = drive.open();
    ASSERT_NE(h, nullptr);
    uint8_t want[32];
    unsigned len = 0;
    HMAC(EVP_sha256(), qm_upload_key(h), 32, reinterpret_cast<const uint8_t*>("0."), 2, want, &len);
    const uint8_t body[1] = {0};
    char a[65], b[65];
    ASSERT_EQ(qm_sign_upload(h, "0", body, 0, a), 0);
    EXPECT_EQ(std::string(a), hex(want, 32));
    ASSERT_EQ(qm_sign_upload(h, "1700000001", body, 1, a), 0);
    ASSERT_EQ(qm_sign_upload(h, "1700000002", body, 1, b), 0);
    EXPECT_NE(std::string(a), std::string(b));
    qm_close(h);
}

}  // namespace
