// Opening drives in every state the deck leaves them in, hostile files on a drive, provisioning,
// the handle's accessors, the result messages, and the qm-deck command as a user runs it.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <functional>
#include <set>
#include <vector>

#include "deck_run.h"
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
    std::vector<qm_day> days() const {
        std::vector<qm_day> d(QM_RING_SLOTS);
        d.resize(size_t(std::max(qm_days_get(h, d.data(), int(d.size())), 0)));
        return d;
    }
};

std::string make_drive(const TempDir& dir, deck::StatsState state = deck::StatsState::Normal, int days = 40) {
    deck::StatsOptions o;
    o.seed = 3;
    o.days = days;
    o.state = state;
    EXPECT_EQ(deck::write_statistics(dir.path(), o, false), "");
    return dir.path();
}

// A file that must never be read or written through a link on the drive.
struct Outside {
    TempDir dir;
    std::string plant(const std::string& name, const std::string& content) {
        spit(dir / name, content);
        return dir / name;
    }
};

// A test that would block on a FIFO fails by the alarm instead of hanging the suite.
struct HangGuard {
    HangGuard() { alarm(60); }
    ~HangGuard() { alarm(0); }
};

// Each state made through the command line, so the option names are covered as well.
TEST(DriveOpen, EveryDeckStateGivesItsCodeAndCopyChoice) {
    struct Case {
        const char* option;
        int code;
        uint32_t from_backup, both_valid, days;
    } cases[] = {
        {nullptr, QM_OK, 0, 1, 240},           {"--only-bak", QM_OK, 1, 0, 239},
        {"--torn-db", QM_OK, 1, 0, 239},         {"--newer-bak", QM_OK, 1, 1, 240},
        {"--full-ring", QM_OK, 0, 1, 1024},      {"--both-damaged", QM_EBADSTATS, 0, 0, 0},
        {"--key-only", QM_ENOSTATS, 0, 0, 0},    {"--no-key", QM_ENOTDRIVE, 0, 0, 0},
        {"--foreign-key", QM_EBADSTATS, 0, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.option ? c.option : "both copies valid");
        TempDir dir;
        std::vector<std::string> args = {"make", dir.path(), "--docs", "0"};
        if (c.option) args.push_back(c.option);
        ASSERT_EQ(run_deck(args).status, 0);
        Opened d(dir.path());
        ASSERT_EQ(d.err, c.code) << qm_strerror(d.err);
        ASSERT_EQ(d.h != nullptr, c.code == QM_OK);
        if (!d.h) continue;
        qm_summary s = d.summary();
        EXPECT_EQ(s.from_backup, c.from_backup);
        EXPECT_EQ(s.both_valid, c.both_valid);
        EXPECT_GE(s.n_days, c.days);  // the torn copy lost the newest day at most
    }
}

TEST(DriveOpen, TornCopyLosesTheLatestSaveAndEqualSequencesKeepTheCurrentCopy) {
    TempDir normal, torn;
    Opened a(make_drive(normal)), b(make_drive(torn, deck::StatsState::TornDb));
    ASSERT_TRUE(a.h && b.h);
    EXPECT_EQ(b.summary().seq + 1, a.summary().seq);
    EXPECT_LT(b.summary().words, a.summary().words);

    fs::copy_file(normal / "stats.db", normal / "stats.bak", fs::copy_options::overwrite_existing);
    Opened same(normal.path() + "/\\/");  // trailing separators of either kind name the same drive
    ASSERT_TRUE(same.h);
    EXPECT_EQ(same.summary().from_backup, 0u);
    EXPECT_EQ(same.summary().both_valid, 1u);
}

// What may stand where a statistics copy belongs.
enum class Kind { Real, Missing, Link, Fifo, Longer, Empty, Folder };

void place(const TempDir& drive, const std::string& name, Kind kind, const std::string& real, Outside& out) {
    std::string path = drive / name;
    fs::remove_all(path);
    switch (kind) {
        case Kind::Real: spit(path, real); break;
        case Kind::Missing: break;
        case Kind::Link: fs::create_symlink(out.plant(name, real), path); break;
        case Kind::Fifo: ASSERT_EQ(mkfifo(path.c_str(), 0600), 0); break;
        case Kind::Longer: spit(path, real + "x"); break;
        case Kind::Empty: spit(path, ""); break;
        case Kind::Folder: fs::create_directories(path); break;
    }
}

TEST(HostileDrive, StatisticsThatAreLinksFifosOrOversizedCountAsMissing) {
    HangGuard guard;
    struct Case {
        Kind db, bak;
        int code;
        uint32_t from_backup;
    } cases[] = {
        {Kind::Link, Kind::Real, QM_OK, 1},       {Kind::Real, Kind::Link, QM_OK, 0},
        {Kind::Fifo, Kind::Real, QM_OK, 1},       {Kind::Real, Kind::Fifo, QM_OK, 0},
        {Kind::Longer, Kind::Real, QM_OK, 1},     {Kind::Folder, Kind::Real, QM_OK, 1},
        {Kind::Link, Kind::Link, QM_ENOSTATS, 0}, {Kind::Fifo, Kind::Missing, QM_ENOSTATS, 0},
        {Kind::Longer, Kind::Missing, QM_ENOSTATS, 0}, {Kind::Empty, Kind::Missing, QM_EBADSTATS, 0},
    };
    TempDir dir;
    make_drive(dir);
    const std::string db = slurp(dir / "stats.db"), bak = slurp(dir / "stats.bak");
    for (const Case& c : cases) {
        SCOPED_TRACE(int(c.db) * 10 + int(c.bak));
        Outside out;
        place(dir, "stats.db", c.db, db, out);
        place(dir, "stats.bak", c.bak, bak, out);
        Opened d(dir.path());
        ASSERT_EQ(d.err, c.code) << qm_strerror(d.err);
        if (!d.h) continue;
        EXPECT_EQ(d.summary().from_backup, c.from_backup);
        EXPECT_EQ(d.summary().both_valid, 0u) << "only one copy was read";
    }
}

TEST(HostileDrive, KeyFilesThatAreLinksFifosOrMisshapenAreNotDrives) {
    HangGuard guard;
    TempDir dir;
    make_drive(dir);
    const std::string key = slurp(dir / ".qm/drive.key");
    std::string bad_magic = key;
    bad_magic[7] = 0x02;
    Outside out;
    const std::string outside_key = out.plant("drive.key", key);
    fs::create_directories(out.dir / "qm");
    spit(out.dir / "qm/drive.key", key);
    const std::vector<std::pair<const char*, std::function<void()>>> cases = {
        {"short", [&] { spit(dir / ".qm/drive.key", key.substr(0, 119)); }},
        {"long", [&] { spit(dir / ".qm/drive.key", key + "x"); }},
        {"magic", [&] { spit(dir / ".qm/drive.key", bad_magic); }},
        {"link", [&] { fs::create_symlink(outside_key, dir / ".qm/drive.key"); }},
        {"fifo", [&] { ASSERT_EQ(mkfifo((dir / ".qm/drive.key").c_str(), 0600), 0); }},
        {"folder", [&] { fs::create_directories(dir / ".qm/drive.key"); }},
        {"linked .qm", [&] {
             fs::remove_all(dir / ".qm");
             fs::create_directory_symlink(out.dir / "qm", dir / ".qm");
         }},
    };
    for (const auto& [name, make] : cases) {
        SCOPED_TRACE(name);
        fs::remove_all(dir / ".qm");
        fs::create_directories(dir / ".qm");
        make();
        EXPECT_EQ(qm_is_drive(dir.path().c_str()), 0);
        EXPECT_EQ(Opened(dir.path()).err, QM_ENOTDRIVE);
    }
    fs::remove_all(dir / ".qm");
    spit(dir / ".qm/drive.key", key);
    EXPECT_EQ(Opened(dir.path()).err, QM_OK);
}

TEST(Provision, WithoutForceKeepsTheKeyWithForceReplacesAllFour) {
    TempDir dir;
    make_drive(dir);
    std::string key = slurp(dir / ".qm/drive.key");
    EXPECT_EQ(qm_provision(dir.path().c_str(), 0), QM_EHASKEY);
    EXPECT_EQ(slurp(dir / ".qm/drive.key"), key);

    EXPECT_EQ(qm_provision(dir.path().c_str(), 1), QM_OK);
    std::string fresh = slurp(dir / ".qm/drive.key");
    ASSERT_EQ(fresh.size(), 120u);
    EXPECT_EQ(fresh.substr(0, 8), key.substr(0, 8));
    for (size_t field = 8; field < 120; field += 16)  // every 16-byte stretch of every key differs
        EXPECT_NE(fresh.substr(field, 16), key.substr(field, 16)) << field;
    EXPECT_EQ(Opened(dir.path()).err, QM_EBADSTATS);
    EXPECT_EQ(std::distance(fs::directory_iterator(dir / ".qm"), {}), 1) << "no temporary file is left behind";

    TempDir fresh_dir;
    EXPECT_EQ(qm_provision(fresh_dir.path().c_str(), 0), QM_OK);
    EXPECT_EQ(fs::status(fresh_dir / ".qm").permissions() & fs::perms::all, fs::perms::owner_all);
    EXPECT_EQ(Opened(fresh_dir.path()).err, QM_ENOSTATS);
    EXPECT_FALSE(fs::exists(fresh_dir / "stats.db"));
    EXPECT_EQ(qm_provision("/proc/no-such-place/drive", 0), QM_EIO);
    const std::string deep = dir.path() + "/" + std::string(1100, 'd');
    EXPECT_EQ(qm_provision(deep.c_str(), 0), QM_EIO);
    EXPECT_EQ(Opened(deep).err, QM_ENOTDRIVE);
}

TEST(Provision, LinksOnTheDriveAreReplacedNeverWrittenThrough) {
    Outside out;
    const std::string target = out.plant("precious", "the user's own file\n");
    TempDir linked_key, linked_folder;
    fs::create_directories(linked_key / ".qm");
    fs::create_symlink(target, linked_key / ".qm/drive.key");
    EXPECT_EQ(qm_provision(linked_key.path().c_str(), 1), QM_OK);
    EXPECT_FALSE(fs::is_symlink(linked_key / ".qm/drive.key"));
    EXPECT_EQ(qm_is_drive(linked_key.path().c_str()), 1);

    fs::create_directory_symlink(out.dir.path(), linked_folder / ".qm");
    EXPECT_EQ(qm_provision(linked_folder.path().c_str(), 1), QM_EIO);
    EXPECT_FALSE(fs::exists(out.dir / "drive.key"));
    EXPECT_EQ(slurp(target), "the user's own file\n");
    EXPECT_EQ(std::distance(fs::directory_iterator(out.dir.path()), {}), 1);
}

TEST(DriveHandle, DaysSortedAndCappedPagesRoundUpAndKeysInHex) {
    TempDir dir;
    make_drive(dir, deck::StatsState::Normal, 300);
    Opened d(dir.path());
    ASSERT_TRUE(d.h);
    std::vector<qm_day> days(QM_RING_SLOTS + 5, qm_day{7, 7, 7});
    EXPECT_EQ(qm_days_get(d.h, days.data(), 0), 0);
    EXPECT_EQ(days[0].day, 7u) << "nothing copied";
    int n = qm_days_get(d.h, days.data(), int(days.size()));
    EXPECT_EQ(uint32_t(n), d.summary().n_days);
    for (int i = 1; i < n; ++i) EXPECT_LT(days[i - 1].day, days[i].day);
    EXPECT_EQ(qm_days_get(d.h, days.data(), 5), 5);

    char id[33], up[65];
    ASSERT_EQ(qm_drive_id_hex(d.h, id), 0);
    ASSERT_EQ(qm_upload_key_hex(d.h, up), 0);
    std::string key = slurp(dir / ".qm/drive.key"), hex;
    char b[3];
    for (size_t i = 8; i < 120; ++i) std::snprintf(b, sizeof b, "%02x", uint8_t(key[i])), hex += b;
    EXPECT_EQ(id, hex.substr(0, 32));
    EXPECT_EQ(up, hex.substr(160));
    EXPECT_EQ(std::memcmp(qm_upload_key(d.h), key.data() + 88, 32), 0);

    qm_drive_key k;
    ASSERT_EQ(drivekey_unpack(reinterpret_cast<const uint8_t*>(key.data()), 120, &k), 0);
    for (auto [words, pages] : {std::pair{0u, 0u}, {1u, 1u}, {250u, 1u}, {251u, 2u}, {UINT32_MAX, 17179870u}}) {
        qm_stats s;
        statsdb_reset(&s);
        s.words = words;
        std::vector<uint8_t> img(QM_STATS_FILE_SIZE);
        statsdb_encode(&s, k.enc_key, k.mac_key, k.drive_id, 1, img.data(), nullptr);
        spit(dir / "stats.db", std::string(img.begin(), img.end()));
        fs::remove(dir / "stats.bak");
        Opened p(dir.path());
        ASSERT_TRUE(p.h);
        EXPECT_EQ(p.summary().pages, pages) << words;
    }
}

TEST(Messages, EveryNamedCodeHasItsTextAndOthersAreUnknown) {
    const std::pair<int, const char*> cases[] = {
        {QM_OK, "OK"}, {QM_EARG, "bad argument"}, {QM_EIO, "could not read or write the drive"},
        {QM_ENOTDRIVE, "not a Quillmate drive"}, {QM_ENOSTATS, "no statistics have been written yet"},
        {QM_EBADSTATS, "the statistics database could not be read"}, {QM_EHASKEY, "this drive already has a key"},
        {QM_ERANDOM, "the system random number generator failed"}, {QM_ESMALL, "buffer too small"},
        {QM_ENOHISTORY, "This document has no history log yet."}, {-10, "unknown error"}, {1, "unknown error"},
        {INT32_MIN, "unknown error"},
    };
    for (auto [code, text] : cases) EXPECT_STREQ(qm_strerror(code), text) << code;
}

// Every entry point refuses null or negative arguments with its documented result.
TEST(Arguments, NullsAndNegativesAreRefused) {
    TempDir dir;
    make_drive(dir);
    Opened d(dir.path());
    ASSERT_TRUE(d.h);
    spit(dir / ".qmv/a.txt/history.log", "1\t0\tmain\tt\t0\t1\tv1\t2025-01-01 00:00:00\n");
    int32_t herr = 0;
    qm_history* h = qm_history_open(dir.path().c_str(), "a.txt", &herr);
    ASSERT_NE(h, nullptr);
    char c[128];
    uint8_t u[64] = {};
    qm_day day;
    qm_summary sum;
    qm_diff_row row;
    qm_version_entry e;
    int err = 0;
    const char* s = "2025-01-01 00:00:00";
    const std::pair<int, int> cases[] = {
        {qm_open(nullptr, &err) == nullptr && err == QM_EARG, 1}, {qm_provision(nullptr, 0), QM_EARG},
        {qm_is_drive(nullptr), 0}, {qm_summary_get(nullptr, &sum), QM_EARG}, {qm_summary_get(d.h, nullptr), QM_EARG},
        {qm_days_get(nullptr, &day, 1), QM_EARG}, {qm_days_get(d.h, &day, -1), QM_EARG},
        {qm_drive_id_hex(nullptr, c), QM_EARG}, {qm_upload_key_hex(d.h, nullptr), QM_EARG},
        {qm_upload_key(nullptr) == nullptr, 1}, {qm_random_bytes(nullptr, 4), -1},
        {qm_export_json(nullptr, c, 10), -1}, {qm_sign_upload(nullptr, "0", u, 0, c), -1},
        {qm_sign_upload(d.h, nullptr, u, 0, c), -1}, {qm_sign_upload(d.h, "0", nullptr, 0, c), -1},
        {qm_sign_upload(d.h, "0", u, 0, nullptr), -1}, {qm_sign_upload(d.h, "0", u, -1, c), -1},
        {qm_history_open(nullptr, "a.txt", &herr) == nullptr && herr == QM_EARG, 1},
        {qm_history_open(dir.path().c_str(), nullptr, &herr) == nullptr && herr == QM_EARG, 1},
        {qm_history_get(nullptr, 0, &e), QM_EARG}, {qm_history_get(h, -1, &e), QM_EARG},
        {qm_history_get(h, 1, &e), QM_EARG}, {qm_version_read(h, 1, nullptr, 4), QM_EARG},
        {qm_version_read(h, 1, u, 0), QM_EARG}, {qm_version_read(h, 99, u, 4), QM_EARG},
        {qm_doc_read(nullptr, "a.txt", u, 4), QM_EARG}, {qm_doc_read(dir.path().c_str(), "a.txt", u, 0), QM_EARG},
        {qm_qmv_revert(nullptr, 1, s), QM_EARG}, {qm_qmv_revert(h, 1, nullptr), QM_EARG},
        {qm_qmv_docs(nullptr, c, 10), QM_EARG}, {qm_qmv_docs(dir.path().c_str(), c, 0), QM_EARG},
        {qm_diff(nullptr, 0, "", 0, &row, 1), -1}, {qm_diff("", 0, nullptr, 0, &row, 1), -1},
        {qm_diff("", 0, "", 0, nullptr, 1), -1}, {qm_diff("", 0, "", 0, &row, 0), -1},
        {qm_diff("", -1, "", 0, &row, 1), -1}, {diff_lines("", 0, "", 0, &row, 1, nullptr, 64), -1},
        {qm_update_message(nullptr, "b", "1", "s", 1, c, 100), -1},
        {qm_update_message("a", nullptr, "1", "s", 1, c, 100), -1},
        {qm_update_message("a", "b", nullptr, "s", 1, c, 100), -1},
        {qm_update_message("a", "b", "1", nullptr, 1, c, 100), -1},
        {qm_update_message("a", "b", "1", "s", 1, nullptr, 100), -1},
        {qm_update_message("a", "b", "1", "s", -1, c, 100), -1}, {qm_update_verify(nullptr, u, u), 0},
        {qm_update_verify("m", nullptr, u), 0}, {qm_update_verify("m", u, nullptr), 0},
        {qm_ed25519_verify(nullptr, 1, u, u), 0},
    };
    for (size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(cases[i].first, cases[i].second) << "case " << i;
    qm_history_close(h);
}

TEST(Helpers, HexRoundTripAndRandomBytes) {
    char out[17];
    u64_to_hex16(0x0123456789abcdefULL, out);
    EXPECT_STREQ(out, "0123456789abcdef");
    uint64_t v = 7;
    EXPECT_EQ(hex16_to_u64("0123456789ABCDEF", &v), 0);
    EXPECT_EQ(v, 0x0123456789abcdefULL);
    EXPECT_EQ(hex16_to_u64("0123456789abcdeg", &v), -1);
    EXPECT_EQ(hex16_to_u64("01234", &v), -1);
    uint8_t a[64] = {0}, b[64] = {0};
    EXPECT_EQ(qm_random_bytes(a, sizeof a) | qm_random_bytes(b, sizeof b), 0);
    EXPECT_NE(std::memcmp(a, b, sizeof a), 0);
}

// The deck's history must look like a real one: counters that agree with the days, a chain of
// images, late entries, streaks that differ from seed to seed, the oldest days leaving the ring.
TEST(DeckHistory, CountersAgreeWithTheDaysAndImagesChain) {
    std::set<std::pair<uint32_t, uint32_t>> streaks;
    bool late_entry_seen = false;
    for (uint64_t seed = 1; seed <= 6; ++seed) {
        SCOPED_TRACE(seed);
        TempDir dir;
        deck::StatsOptions o;
        o.seed = seed;
        o.days = seed == 6 ? 1100 : 200;
        ASSERT_EQ(deck::write_statistics(dir.path(), o, false), "");
        Opened d(dir.path());
        ASSERT_TRUE(d.h);
        qm_summary s = d.summary();
        std::vector<qm_day> days = d.days();
        ASSERT_EQ(days.size(), size_t(std::min(o.days, QM_RING_SLOTS)));
        EXPECT_EQ(s.days_written, uint32_t(o.days));
        EXPECT_EQ(s.last_day, days.back().day);
        EXPECT_EQ(s.last_day, deck::default_last_day());
        uint64_t words = 0, secs = 0;
        uint32_t longest_day = 0, run = 0, longest_run = 0;
        for (size_t i = 0; i < days.size(); ++i) {
            words += days[i].words, secs += days[i].secs;
            longest_day = std::max(longest_day, days[i].secs);
            EXPECT_GT(days[i].words * days[i].secs, 0u);
            run = i > 0 && days[i].day == days[i - 1].day + 1 ? run + 1 : 1;
            longest_run = std::max(longest_run, run);
        }
        streaks.insert({s.streak_current, s.streak_best});
        EXPECT_GE(s.streak_best, s.streak_current);
        EXPECT_GE(s.streak_current, 1u);
        if (o.days > QM_RING_SLOTS) {
            EXPECT_GT(days.front().day, s.first_day) << "the oldest days fell out of the ring";
            continue;
        }
        EXPECT_EQ(s.first_day, days.front().day);
        EXPECT_EQ(s.words, words);
        EXPECT_EQ(s.write_secs, secs);
        EXPECT_LE(s.longest_secs, longest_day);
        EXPECT_GE(s.longest_secs * 3, longest_day);  // at most three sessions a day
        EXPECT_TRUE(s.sessions >= 200 && s.sessions <= 600 && s.saves >= s.sessions) << s.sessions;
        EXPECT_TRUE(s.chars > s.words && s.sentences > 0 && s.newlines > 0 && s.created >= 1);
        EXPECT_LE(s.streak_best, longest_run);

        std::string raw = slurp(dir / ".qm/drive.key"), db = slurp(dir / "stats.db"), bak = slurp(dir / "stats.bak");
        qm_drive_key k;
        ASSERT_EQ(drivekey_unpack(reinterpret_cast<const uint8_t*>(raw.data()), 120, &k), 0);
        qm_stats a, b;
        uint8_t id[16], tag[32];
        uint32_t seq_a = 0, seq_b = 0;
        ASSERT_EQ(statsdb_decode(reinterpret_cast<const uint8_t*>(db.data()), unsigned(db.size()), k.enc_key,
                                 k.mac_key, &a, id, &seq_a, nullptr), 0);
        ASSERT_EQ(statsdb_decode(reinterpret_cast<const uint8_t*>(bak.data()), unsigned(bak.size()), k.enc_key,
                                 k.mac_key, &b, nullptr, &seq_b, tag), 0);
        EXPECT_EQ(seq_a, seq_b + 1);
        EXPECT_EQ(std::memcmp(a.chain, tag, 32), 0) << "each image chains to the previous one's tag";
        EXPECT_EQ(std::memcmp(id, k.drive_id, 16), 0);
        EXPECT_EQ(b.days_written, 199u);
        for (uint32_t i = 1; i < a.ring_used; ++i) late_entry_seen |= a.ring[i].day < a.ring[i - 1].day;
    }
    EXPECT_TRUE(late_entry_seen);
    EXPECT_GT(streaks.size(), 1u);

    TempDir never;  // a drive never written on still has two valid copies
    deck::StatsOptions o;
    o.days = 0;
    o.state = deck::StatsState::NewerBak;
    ASSERT_EQ(deck::write_statistics(never.path(), o, false), "");
    Opened d(never.path());
    ASSERT_TRUE(d.h);
    EXPECT_EQ(d.summary().both_valid, 1u);
    EXPECT_EQ(d.summary().n_days + d.summary().first_day + d.summary().streak_best, 0u);
}

TEST(DeckCommand, ExistingDrivesNeedForceAndBadCommandLinesWriteNothing) {
    TempDir dir, keyless;
    ASSERT_EQ(run_deck({"make", dir.path(), "--docs", "0"}).status, 0);
    const std::string key = slurp(dir / ".qm/drive.key"), db = slurp(dir / "stats.db");
    DeckRun again = run_deck({"make", dir.path(), "--docs", "0"});
    EXPECT_EQ(again.status, 1);
    EXPECT_NE(again.err.find("--force"), std::string::npos) << again.err;
    EXPECT_EQ(slurp(dir / ".qm/drive.key") + slurp(dir / "stats.db"), key + db);
    ASSERT_EQ(run_deck({"make", dir.path(), "--force", "--docs", "0", "--seed", "4"}).status, 0);
    EXPECT_NE(slurp(dir / ".qm/drive.key"), key);
    EXPECT_EQ(Opened(dir.path()).err, QM_OK);
    ASSERT_EQ(run_deck({"make", keyless.path(), "--no-key", "--docs", "0"}).status, 0);
    EXPECT_EQ(run_deck({"make", keyless.path(), "--docs", "0"}).status, 1) << "statistics without a key are a drive";

    const std::string d = dir / "new";
    const std::vector<std::string> bad[] = {{}, {"make"}, {"make", d, d}, {"make", d, "--torn-db", "--only-bak"},
                                            {"make", d, "--full-ring", "--days", "5"}, {"make", d, "--days", "-3"},
                                            {"make", d, "--docs", "0", "--crlf"}, {"make", d, "--wat"}, {"show", d, d}};
    for (const auto& args : bad) {
        DeckRun r = run_deck(args);
        EXPECT_TRUE(r.status == 2 && r.out.empty() && r.err.find("--help") != std::string::npos) << r.err;
    }
    EXPECT_FALSE(fs::exists(d));
}

}  // namespace
