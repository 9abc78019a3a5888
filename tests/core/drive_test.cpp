// Opening drives in every state the deck can leave them in, provisioning, and the handle's accessors.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <numeric>
#include <regex>
#include <set>
#include <sstream>
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
};

std::string make_drive(const TempDir& dir, deck::StatsState state, int days = 40) {
    deck::StatsOptions o;
    o.seed = 3;
    o.days = days;
    o.state = state;
    EXPECT_EQ(deck::write_statistics(dir.path(), o, false), "");
    return dir.path();
}

qm_drive_key key_of(const TempDir& dir) {
    std::string raw = slurp(dir / ".qm/drive.key");
    qm_drive_key k{};
    EXPECT_EQ(drivekey_unpack(reinterpret_cast<const uint8_t*>(raw.data()), unsigned(raw.size()), &k), 0);
    return k;
}

struct Copy {
    int rc = 1;
    qm_stats stats{};
    uint8_t id[16] = {}, tag[32] = {};
    uint32_t seq = 0;
};

Copy decode_file(const std::string& path, const qm_drive_key& k) {
    std::string raw = slurp(path);
    Copy c;
    c.rc = statsdb_decode(reinterpret_cast<const uint8_t*>(raw.data()), unsigned(raw.size()), k.enc_key, k.mac_key,
                          &c.stats, c.id, &c.seq, c.tag);
    return c;
}

std::vector<qm_day> days_of(const qm_drive* h) {
    std::vector<qm_day> days(QM_RING_SLOTS);
    int n = qm_days_get(h, days.data(), int(days.size()));
    days.resize(size_t(std::max(n, 0)));
    return days;
}

uint32_t longest_run(const std::vector<qm_day>& days) {
    uint32_t best = 0, run = 0;
    for (size_t i = 0; i < days.size(); ++i) {
        run = i > 0 && days[i].day == days[i - 1].day + 1 ? run + 1 : 1;
        best = std::max(best, run);
    }
    return best;
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
    std::fill(days.begin(), days.end(), qm_day{7, 7, 7});
    EXPECT_EQ(qm_days_get(d.h, days.data(), 0), 0);
    EXPECT_EQ(days[0].day, 7u);  // nothing copied
    EXPECT_EQ(qm_days_get(d.h, days.data(), 5), 5);
    EXPECT_EQ(qm_days_get(d.h, days.data(), -1), QM_EARG);
    EXPECT_EQ(qm_days_get(nullptr, days.data(), 5), QM_EARG);
    EXPECT_EQ(qm_summary_get(d.h, nullptr), QM_EARG);

    char id[33], up[65];
    ASSERT_EQ(qm_drive_id_hex(d.h, id), 0);
    ASSERT_EQ(qm_upload_key_hex(d.h, up), 0);
    std::string key = slurp(dir / ".qm/drive.key");
    auto hex_of = [&](size_t from, size_t n) {
        std::string h;
        char b[3];
        for (size_t i = from; i < from + n; ++i) std::snprintf(b, sizeof b, "%02x", uint8_t(key[i])), h += b;
        return h;
    };
    EXPECT_EQ(id, hex_of(8, 16));
    EXPECT_EQ(up, hex_of(88, 32));
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

TEST(DriveOpen, OversizedEmptyAndOverlongPathsAreRefusedNotCut) {
    TempDir dir;
    make_drive(dir, deck::StatsState::Normal);
    std::string db = slurp(dir / "stats.db");

    spit(dir / "stats.db", db + "x");  // one byte too long counts as unreadable; the backup serves
    Opened longer(dir.path());
    ASSERT_EQ(longer.err, QM_OK);
    EXPECT_EQ(longer.summary().from_backup, 1u);
    EXPECT_EQ(longer.summary().both_valid, 0u);

    std::filesystem::remove(dir / "stats.bak");
    EXPECT_EQ(Opened(dir.path()).err, QM_ENOSTATS);  // the only file there is refused as unreadable
    spit(dir / "stats.db", "");
    EXPECT_EQ(Opened(dir.path()).err, QM_EBADSTATS);  // present but empty

    std::string deep = dir.path() + "/" + std::string(1100, 'd');
    EXPECT_EQ(qm_provision(deep.c_str(), 0), QM_EIO);
    EXPECT_EQ(qm_is_drive(deep.c_str()), 0);
    EXPECT_EQ(Opened(deep).err, QM_ENOTDRIVE);
    EXPECT_EQ(qm_is_drive(nullptr), 0);
    EXPECT_EQ(sizeof(qm_summary), 31 * sizeof(uint32_t));
}

// The deck's history must look like a real one: counters that agree with the days, a chain of
// images, late entries, streaks that differ from seed to seed.
TEST(DeckHistory, CountersAgreeWithTheDaysAndImagesChain) {
    std::set<std::pair<uint32_t, uint32_t>> streaks;
    bool late_entry_seen = false;
    for (uint64_t seed = 1; seed <= 6; ++seed) {
        SCOPED_TRACE(seed);
        TempDir dir;
        deck::StatsOptions o;
        o.seed = seed;
        o.days = 200;
        ASSERT_EQ(deck::write_statistics(dir.path(), o, false), "");
        Opened d(dir.path());
        ASSERT_TRUE(d.h);
        qm_summary s = d.summary();
        std::vector<qm_day> days = days_of(d.h);
        ASSERT_EQ(days.size(), 200u);
        EXPECT_EQ(s.days_written, 200u);
        EXPECT_EQ(s.first_day, days.front().day);
        EXPECT_EQ(s.last_day, days.back().day);
        EXPECT_EQ(s.last_day, deck::default_last_day());
        uint64_t words = 0, secs = 0;
        uint32_t longest_day = 0;
        for (const qm_day& day : days) {
            words += day.words, secs += day.secs;
            longest_day = std::max(longest_day, day.secs);
            EXPECT_GT(day.words, 0u);
            EXPECT_GT(day.secs, 0u);
        }
        EXPECT_EQ(s.words, words);
        EXPECT_EQ(s.write_secs, secs);
        EXPECT_LE(s.longest_secs, longest_day);
        EXPECT_GE(s.longest_secs * 3, longest_day);  // at most three sessions a day
        EXPECT_GE(s.sessions, 200u);
        EXPECT_LE(s.sessions, 600u);
        EXPECT_GE(s.saves, s.sessions);
        EXPECT_GT(s.chars, s.words);
        EXPECT_GT(s.sentences, 0u);
        EXPECT_GT(s.newlines, 0u);
        EXPECT_GE(s.created, 1u);
        EXPECT_GE(s.streak_current, 1u);
        EXPECT_GE(s.streak_best, s.streak_current);
        EXPECT_LE(s.streak_best, longest_run(days));
        streaks.insert({s.streak_current, s.streak_best});

        qm_drive_key k = key_of(dir);
        Copy db = decode_file(dir / "stats.db", k), bak = decode_file(dir / "stats.bak", k);
        ASSERT_EQ(db.rc, 0);
        ASSERT_EQ(bak.rc, 0);
        EXPECT_EQ(db.seq, bak.seq + 1);
        EXPECT_EQ(std::memcmp(db.stats.chain, bak.tag, 32), 0);  // the previous image's tag
        EXPECT_EQ(std::memcmp(db.id, k.drive_id, 16), 0);
        EXPECT_EQ(std::memcmp(bak.id, k.drive_id, 16), 0);
        EXPECT_EQ(bak.stats.days_written, 199u);
        for (uint32_t i = 1; i < db.stats.ring_used; ++i)  // slots are in order of noting
            late_entry_seen |= db.stats.ring[i].day < db.stats.ring[i - 1].day;
    }
    EXPECT_TRUE(late_entry_seen);
    EXPECT_GT(streaks.size(), 1u);
}

TEST(DeckHistory, FullRingKeepsTheNewest1024Days) {
    TempDir dir;
    deck::StatsOptions o;
    o.days = 1100;
    ASSERT_EQ(deck::write_statistics(dir.path(), o, false), "");
    Opened d(dir.path());
    ASSERT_TRUE(d.h);
    qm_summary s = d.summary();
    std::vector<qm_day> days = days_of(d.h);
    EXPECT_EQ(s.days_written, 1100u);
    EXPECT_EQ(s.n_days, 1024u);
    ASSERT_EQ(days.size(), 1024u);
    EXPECT_EQ(days.back().day, s.last_day);
    EXPECT_GT(days.front().day, s.first_day);  // the oldest days fell out of the ring
}

TEST(DeckHistory, NeverWrittenDriveStillHasTwoValidCopies) {
    TempDir dir;
    deck::StatsOptions o;
    o.days = 0;
    o.state = deck::StatsState::NewerBak;
    ASSERT_EQ(deck::write_statistics(dir.path(), o, false), "");
    Opened d(dir.path());
    ASSERT_TRUE(d.h);
    qm_summary s = d.summary();
    EXPECT_EQ(s.from_backup, 1u);
    EXPECT_EQ(s.both_valid, 1u);
    EXPECT_EQ(s.n_days, 0u);
    EXPECT_EQ(s.first_day, 0u);
    EXPECT_EQ(s.streak_best, 0u);
}

// ---- The qm-deck command ----------------------------------------------------------------

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

bool has_line(const std::string& text, const std::string& line) {
    auto lines = lines_of(text);
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

TEST(DeckCommand, ShowPrintsWhatTheCoreReads) {
    TempDir dir;
    std::string drive = dir / "drive";
    DeckRun made = run_deck({"make", drive, "--seed", "7", "--docs", "0"});
    ASSERT_EQ(made.status, 0) << made.err;
    EXPECT_EQ(made.err, "");
    DeckRun shown = run_deck({"show", drive + "/"});
    ASSERT_EQ(shown.status, 0) << shown.err;

    Opened d(drive);
    ASSERT_TRUE(d.h);
    qm_summary s = d.summary();
    char id[33];
    qm_drive_id_hex(d.h, id);
    EXPECT_TRUE(has_line(shown.out, "open: 0 (OK)")) << shown.out;
    EXPECT_TRUE(has_line(shown.out, "copy: stats.db, seq " + std::to_string(s.seq) + " (both copies valid)"));
    EXPECT_TRUE(has_line(shown.out, std::string("drive id: ") + id));
    EXPECT_NE(shown.out.find("words " + std::to_string(s.words) + " (" + std::to_string(s.pages) + " pages)"),
              std::string::npos);
    EXPECT_TRUE(has_line(shown.out, "days: " + std::to_string(s.n_days)));
    EXPECT_TRUE(has_line(shown.out, "documents with a history: 0"));

    // One line per day, in order, each agreeing with the core's record of that day.
    std::vector<qm_day> days = days_of(d.h);
    std::regex day_line(R"(\s+(\d{4})-(\d{2})-(\d{2})\s+(\d+) words\s+(\d+) s)");
    size_t k = 0;
    for (const std::string& line : lines_of(shown.out)) {
        std::smatch m;
        if (!std::regex_match(line, m, day_line)) continue;
        ASSERT_LT(k, days.size());
        unsigned y, mo, dd;
        qm_day_to_ymd(days[k].day, &y, &mo, &dd);
        EXPECT_EQ(std::stoul(m[1]), y);
        EXPECT_EQ(std::stoul(m[2]), mo);
        EXPECT_EQ(std::stoul(m[3]), dd);
        EXPECT_EQ(std::stoul(m[4]), days[k].words);
        EXPECT_EQ(std::stoul(m[5]), days[k].secs);
        ++k;
    }
    EXPECT_EQ(k, days.size());
}

TEST(DeckCommand, EveryStateOptionShowsItsCodeMessageAndCopy) {
    struct Case {
        const char* option;
        int status;
        const char* open_line;
        const char* also;  // a line that must follow, or null
    } cases[] = {
        {"--only-bak", 0, "open: 0 (OK)", "(recovered from the backup copy)"},
        {"--torn-db", 0, "open: 0 (OK)", "(recovered from the backup copy)"},
        {"--newer-bak", 0, "open: 0 (OK)", "(both copies valid, the backup newer)"},
        {"--full-ring", 0, "open: 0 (OK)", "days: 1024"},
        {"--both-damaged", 1, "open: -5 (the statistics database could not be read)", nullptr},
        {"--foreign-key", 1, "open: -5 (the statistics database could not be read)", nullptr},
        {"--key-only", 1, "open: -4 (no statistics have been written yet)", nullptr},
        {"--no-key", 1, "open: -3 (not a Quillmate drive)", nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.option);
        TempDir dir;
        DeckRun made = run_deck({"make", dir.path(), c.option, "--docs", "0"});
        ASSERT_EQ(made.status, 0) << made.err;
        DeckRun shown = run_deck({"show", dir.path()});
        EXPECT_EQ(shown.status, c.status);
        EXPECT_EQ(lines_of(shown.out).at(0), c.open_line);
        if (c.also) {
            EXPECT_NE(shown.out.find(c.also), std::string::npos) << shown.out;
        }
        if (c.status) {
            EXPECT_EQ(shown.out.find("copy:"), std::string::npos);  // nothing was opened to describe
        }
    }
    TempDir torn;
    ASSERT_EQ(run_deck({"make", torn.path(), "--torn-db", "--docs", "0"}).status, 0);
    EXPECT_LT(std::filesystem::file_size(torn / "stats.db"), uint64_t(QM_STATS_FILE_SIZE));
    EXPECT_EQ(run_deck({"show", torn / "no such drive"}).status, 1);
}

TEST(DeckCommand, AnExistingDriveIsReplacedOnlyWithForce) {
    TempDir dir;
    ASSERT_EQ(run_deck({"make", dir.path(), "--docs", "0"}).status, 0);
    std::string key = slurp(dir / ".qm/drive.key"), db = slurp(dir / "stats.db");

    DeckRun again = run_deck({"make", dir.path(), "--docs", "0"});
    EXPECT_EQ(again.status, 1);
    EXPECT_NE(again.err.find("--force"), std::string::npos) << again.err;
    EXPECT_EQ(slurp(dir / ".qm/drive.key"), key);
    EXPECT_EQ(slurp(dir / "stats.db"), db);

    ASSERT_EQ(run_deck({"make", dir.path(), "--force", "--docs", "0", "--seed", "4"}).status, 0);
    EXPECT_NE(slurp(dir / ".qm/drive.key"), key);
    EXPECT_EQ(Opened(dir.path()).err, QM_OK);  // the statistics were written again under the new key

    TempDir keyless;  // statistics without a key are a drive too
    ASSERT_EQ(run_deck({"make", keyless.path(), "--no-key", "--docs", "0"}).status, 0);
    std::string bak = slurp(keyless / "stats.bak");
    EXPECT_EQ(run_deck({"make", keyless.path(), "--docs", "0"}).status, 1);
    EXPECT_EQ(slurp(keyless / "stats.bak"), bak);
    EXPECT_FALSE(std::filesystem::exists(keyless / ".qm/drive.key"));
}

TEST(DeckCommand, OneSeedOneHistory) {
    auto shown_without_keys = [](const std::string& seed) {
        TempDir dir;
        EXPECT_EQ(run_deck({"make", dir.path(), "--seed", seed, "--days", "90"}).status, 0);
        std::string kept;
        for (const std::string& line : lines_of(run_deck({"show", dir.path()}).out))
            if (line.rfind("drive id:", 0) != 0 && line.rfind("chain tag:", 0) != 0) kept += line + "\n";
        return kept;
    };
    std::string a = shown_without_keys("11");
    EXPECT_NE(a.find("days: 90"), std::string::npos) << a;
    EXPECT_EQ(a, shown_without_keys("11"));
    EXPECT_NE(a, shown_without_keys("12"));
}

TEST(DeckCommand, DocumentsAreWrittenUnlessDocsIsZero) {
    TempDir plain, none, extra, blocked;
    ASSERT_EQ(run_deck({"make", plain.path()}).status, 0);
    EXPECT_TRUE(has_line(run_deck({"show", plain.path()}).out, "documents with a history: 3"));

    ASSERT_EQ(run_deck({"make", none.path(), "--docs", "0"}).status, 0);
    EXPECT_FALSE(std::filesystem::exists(none / ".qmv"));

    ASSERT_EQ(run_deck({"make", extra.path(), "--docs", "1", "--crlf", "--missing-version"}).status, 0);
    EXPECT_TRUE(has_line(run_deck({"show", extra.path()}).out, "documents with a history: 3"));

    spit(blocked / ".qmv", "a file where the history folder belongs");
    DeckRun failed = run_deck({"make", blocked.path(), "--docs", "2"});
    EXPECT_EQ(failed.status, 1);
    EXPECT_NE(failed.err.find("could not"), std::string::npos) << failed.err;
}

TEST(DeckCommand, BadCommandLinesExitWithTwoAndSayWhy) {
    TempDir dir;
    std::string d = dir / "drive", e = dir / "other";
    struct Case {
        std::vector<std::string> args;
        const char* says;
    } cases[] = {
        {{}, "say make"},
        {{"frobnicate"}, "unknown command frobnicate"},
        {{"make"}, "make needs a drive folder"},
        {{"make", d, e}, "only one drive folder"},
        {{"make", d, "--torn-db", "--only-bak"}, "at most one statistics state"},
        {{"make", d, "--full-ring", "--newer-bak"}, "at most one statistics state"},
        {{"make", d, "--full-ring", "--days", "5"}, "leave out --days"},
        {{"make", d, "--seed"}, "--seed needs a whole number"},
        {{"make", d, "--days", "many"}, "--days needs a whole number"},
        {{"make", d, "--days", "-3"}, "--days needs a whole number"},
        {{"make", d, "--docs", "2x"}, "--docs needs a whole number"},
        {{"make", d, "--docs", "0", "--hostile-name"}, "--docs 0"},
        {{"make", d, "--wat"}, "unknown option --wat"},
        {{"show"}, "exactly one drive folder"},
        {{"show", d, e}, "exactly one drive folder"},
    };
    for (const Case& c : cases) {
        DeckRun r = run_deck(c.args);
        SCOPED_TRACE(r.err);
        EXPECT_EQ(r.status, 2);
        EXPECT_NE(r.err.find(c.says), std::string::npos);
        EXPECT_NE(r.err.find("--help"), std::string::npos);
        EXPECT_EQ(r.out, "");
    }
    EXPECT_FALSE(std::filesystem::exists(d));
}

TEST(DeckCommand, HelpNamesEveryOption) {
    DeckRun r = run_deck({"--help"});
    EXPECT_EQ(r.status, 0);
    for (const char* option : {"make DIR", "show DIR", "--seed N", "--days N", "--force", "--only-bak", "--torn-db",
                               "--both-damaged", "--key-only", "--no-key", "--foreign-key", "--full-ring",
                               "--newer-bak", "--docs N", "--crlf", "--log-fields", "--missing-version",
                               "--big-version", "--long-doc", "--hostile-name"})
        EXPECT_NE(r.out.find(option), std::string::npos) << option;
}

}  // namespace
