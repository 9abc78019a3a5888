// Opening drives in every state the deck can leave them in, provisioning, and the handle's accessors.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <vector>

#include "qm_core.h"
#include "statistics.h"
#include "temp_dir.h"

namespace {

namespace fs = std::filesystem;

struct Opened {
    int err = 1;
    qm_drive* h = nullptr;
    explicit Opened(const std::string& path) { h = qm_open(path.c_str(), &err); }
    ~Opened() { qm_close(h); }
    qm_summary summary() const {
        qm_summary s{};
        EXPECT_EQ(qm_summary_get(h, &s), 0);
        return s;
    }
};

std::string make_drive(const TempDir& dir, deck::StatsState state, int days = 40) {
    deck::StatsOptions o;
    o.seed = 3;
    o.days = days;
    o.state = state;
    EXPECT_EQ(deck::write_statistics(dir.path(), o, false), "");
    return dir.path();
}

TEST(DriveOpen, EveryDeckStateGivesItsCodeAndCopyChoice) {
    struct Case {
        deck::StatsState state;
        int code;
        uint32_t from_backup, both_valid;
    } cases[] = {
        {deck::StatsState::Normal, QM_OK, 0, 1},         {deck::StatsState::OnlyBak, QM_OK, 1, 0},
        {deck::StatsState::TornDb, QM_OK, 1, 0},         {deck::StatsState::NewerBak, QM_OK, 1, 1},
        {deck::StatsState::BothDamaged, QM_EBADSTATS, 0, 0}, {deck::StatsState::KeyOnly, QM_ENOSTATS, 0, 0},
        {deck::StatsState::NoKey, QM_ENOTDRIVE, 0, 0},   {deck::StatsState::ForeignKey, QM_EBADSTATS, 0, 0},
    };
    for (const Case& c : cases) {
        TempDir dir;
        Opened d(make_drive(dir, c.state));
        SCOPED_TRACE(int(c.state));
        ASSERT_EQ(d.err, c.code) << qm_strerror(d.err);
        ASSERT_EQ(d.h != nullptr, c.code == QM_OK);
        if (!d.h) continue;
        qm_summary s = d.summary();
        EXPECT_EQ(s.from_backup, c.from_backup);
        EXPECT_EQ(s.both_valid, c.both_valid);
        EXPECT_GE(s.n_days, 39u);  // the torn copy lost the newest day at most
    }
}

TEST(DriveOpen, NewerBackupWinsAndTornCurrentCopyLosesOnlyTheLatestSave) {
    TempDir normal, torn;
    Opened a(make_drive(normal, deck::StatsState::Normal));
    Opened b(make_drive(torn, deck::StatsState::TornDb));
    ASSERT_TRUE(a.h && b.h);
    EXPECT_EQ(b.summary().seq + 1, a.summary().seq);
    EXPECT_LT(b.summary().words, a.summary().words);
}

TEST(DriveOpen, EqualSequenceNumbersKeepTheCurrentCopy) {
    TempDir dir;
    make_drive(dir, deck::StatsState::Normal);
    fs::copy_file(dir / "stats.db", dir / "stats.bak", fs::copy_options::overwrite_existing);
    Opened before(dir.path());
    ASSERT_TRUE(before.h);
    EXPECT_EQ(before.summary().from_backup, 0u);
    EXPECT_EQ(before.summary().both_valid, 1u);
}

TEST(DriveOpen, PathsWithTrailingSlashesOpenTheSameDrive) {
    TempDir dir;
    make_drive(dir, deck::StatsState::Normal);
    Opened plain(dir.path()), slashes(dir.path() + "///"), backslash(dir.path() + "/\\");
    ASSERT_TRUE(plain.h && slashes.h && backslash.h);
    EXPECT_EQ(plain.summary().seq, slashes.summary().seq);
    EXPECT_EQ(plain.summary().words, backslash.summary().words);
}

TEST(DriveOpen, KeyFilesOfTheWrongSizeOrMagicAreNotDrives) {
    TempDir dir;
    make_drive(dir, deck::StatsState::Normal);
    std::string key = slurp(dir / ".qm/drive.key");
    ASSERT_EQ(key.size(), 120u);
    const std::string variants[] = {key.substr(0, 119), key + "x", [&] {
                                        std::string k = key;
                                        k[7] = 0x02;
                                        return k;
                                    }()};
    for (const std::string& bad : variants) {
        spit(dir / ".qm/drive.key", bad);
        EXPECT_EQ(qm_is_drive(dir.path().c_str()), 0);
        Opened d(dir.path());
        EXPECT_EQ(d.err, QM_ENOTDRIVE);
        EXPECT_EQ(d.h, nullptr);
    }
    spit(dir / ".qm/drive.key", key);
    EXPECT_EQ(qm_is_drive(dir.path().c_str()), 1);
}

TEST(Provision, WithoutForceKeepsTheKeyWithForceReplacesAllFour) {
    TempDir dir;
    make_drive(dir, deck::StatsState::Normal);
    std::string key = slurp(dir / ".qm/drive.key");
    EXPECT_EQ(qm_provision(dir.path().c_str(), 0), QM_EHASKEY);
    EXPECT_EQ(slurp(dir / ".qm/drive.key"), key);

    EXPECT_EQ(qm_provision(dir.path().c_str(), 1), QM_OK);
    std::string fresh = slurp(dir / ".qm/drive.key");
    ASSERT_EQ(fresh.size(), 120u);
    EXPECT_EQ(fresh.substr(0, 8), key.substr(0, 8));
    for (size_t field = 8; field < 120; field += 16)  // every 16-byte stretch of every key differs
        EXPECT_NE(fresh.substr(field, 16), key.substr(field, 16)) << field;
    Opened d(dir.path());
    EXPECT_EQ(d.err, QM_EBADSTATS);
}

TEST(Provision, NewDriveHasAKeyButNoStatisticsAndNoStatisticsFilesAreTouched) {
    TempDir dir;
    EXPECT_EQ(qm_provision(dir.path().c_str(), 0), QM_OK);
    EXPECT_EQ(fs::status(dir / ".qm").permissions() & fs::perms::all, fs::perms::owner_all);
    EXPECT_EQ(qm_is_drive(dir.path().c_str()), 1);
    EXPECT_FALSE(fs::exists(dir / "stats.db"));
    Opened d(dir.path());
    EXPECT_EQ(d.err, QM_ENOSTATS);
    EXPECT_EQ(qm_provision(nullptr, 0), QM_EARG);
    EXPECT_EQ(qm_provision("/proc/no-such-place/drive", 0), QM_EIO);
}

TEST(DriveHandle, DaysComeSortedAndCappedAndAccessorsCheckArguments) {
    TempDir dir;
    make_drive(dir, deck::StatsState::Normal, 300);
    Opened d(dir.path());
    ASSERT_TRUE(d.h);
    std::vector<qm_day> days(QM_RING_SLOTS + 5);
    int n = qm_days_get(d.h, days.data(), int(days.size()));
    EXPECT_EQ(uint32_t(n), d.summary().n_days);
    for (int i = 1; i < n; ++i) EXPECT_LT(days[i - 1].day, days[i].day);
    EXPECT_EQ(qm_days_get(d.h, days.data(), 0), 0);
    EXPECT_EQ(qm_days_get(d.h, days.data(), 5), 5);
    EXPECT_EQ(qm_days_get(d.h, days.data(), -1), QM_EARG);
    EXPECT_EQ(qm_days_get(nullptr, days.data(), 5), QM_EARG);
    EXPECT_EQ(qm_summary_get(d.h, nullptr), QM_EARG);

    char id[33], up[65];
    ASSERT_EQ(qm_drive_id_hex(d.h, id), 0);
    ASSERT_EQ(qm_upload_key_hex(d.h, up), 0);
    std::string key = slurp(dir / ".qm/drive.key");
    char expect[3];
    std::snprintf(expect, sizeof expect, "%02x", uint8_t(key[8]));
    EXPECT_EQ(std::string(id, 2), expect);
    EXPECT_EQ(std::strlen(id), 32u);
    EXPECT_EQ(std::strlen(up), 64u);
    EXPECT_EQ(std::memcmp(qm_upload_key(d.h), key.data() + 88, 32), 0);
    EXPECT_EQ(qm_upload_key(nullptr), nullptr);
    EXPECT_EQ(qm_drive_id_hex(nullptr, id), QM_EARG);
    int err = 0;
    EXPECT_EQ(qm_open(nullptr, &err), nullptr);
    EXPECT_EQ(err, QM_EARG);
}

TEST(DriveHandle, PagesRoundUpPerTwoHundredFiftyWords) {
    TempDir dir;
    ASSERT_EQ(qm_provision(dir.path().c_str(), 0), QM_OK);
    std::string key = slurp(dir / ".qm/drive.key");
    qm_drive_key k;
    ASSERT_EQ(drivekey_unpack(reinterpret_cast<const uint8_t*>(key.data()), 120, &k), 0);
    for (auto [words, pages] : {std::pair{0u, 0u}, {1u, 1u}, {250u, 1u}, {251u, 2u}, {4294967295u, 0u}}) {
        qm_stats s;
        statsdb_reset(&s);
        s.words = words;
        std::vector<uint8_t> img(QM_STATS_FILE_SIZE);
        statsdb_encode(&s, k.enc_key, k.mac_key, k.drive_id, 1, img.data(), nullptr);
        spit(dir / "stats.db", std::string(img.begin(), img.end()));
        Opened d(dir.path());
        ASSERT_TRUE(d.h);
        EXPECT_EQ(d.summary().pages, pages) << words;  // the sum wraps in 32 bits, as the deck computes it
    }
}

TEST(Messages, EveryCodeHasItsTextAndOthersAreUnknown) {
    const char* expected[] = {"OK",
                              "bad argument",
                              "could not read or write the drive",
                              "not a Quillmate drive",
                              "no statistics have been written yet",
                              "the statistics database could not be read",
                              "this drive already has a key",
                              "the system random number generator failed",
                              "buffer too small"};
    for (int code = 0; code >= -8; --code) EXPECT_STREQ(qm_strerror(code), expected[-code]);
    for (int code : {-9, 1, -1000, 1000}) EXPECT_STREQ(qm_strerror(code), "unknown error");
    EXPECT_EQ(qm_core_abi(), 3);
}

TEST(Hex, SixteenDigitRoundTripAndRefusals) {
    char out[17];
    u64_to_hex16(0x0123456789abcdefULL, out);
    EXPECT_STREQ(out, "0123456789abcdef");
    uint64_t v = 7;
    EXPECT_EQ(hex16_to_u64("0123456789ABCDEF", &v), 0);
    EXPECT_EQ(v, 0x0123456789abcdefULL);
    v = 7;
    EXPECT_EQ(hex16_to_u64("0123456789abcdeg", &v), -1);
    EXPECT_EQ(hex16_to_u64("01234", &v), -1);
    EXPECT_EQ(v, 7u);
}

TEST(Random, FillsAndRefusesNull) {
    uint8_t a[64] = {0}, b[64] = {0};
    EXPECT_EQ(qm_random_bytes(a, sizeof a), 0);
    EXPECT_EQ(qm_random_bytes(b, sizeof b), 0);
    EXPECT_NE(std::memcmp(a, b, sizeof a), 0);
    EXPECT_EQ(qm_random_bytes(nullptr, 4), -1);
}

}  // namespace
