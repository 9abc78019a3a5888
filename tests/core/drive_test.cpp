// Opening drives in every state the deck leaves them in, hostile files on a drive, provisioning,
// the handle's accessors and argument checks.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "qm_core_internal.h"
#include "statistics.h"
#include "temp_dir.h"

namespace {

namespace fs = std::filesystem;

std::string shell_quoted(const std::string& s) {
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

// Runs the qm-deck executable as a user would; its exit status, -1 when it did not exit normally.
int run_deck(const std::vector<std::string>& args) {
    std::string cmd = shell_quoted(QM_DECK_PATH);
    for (const std::string& a : args) cmd += " " + shell_quoted(a);
    const int raw = std::system((cmd + " </dev/null >/dev/null").c_str());
    return raw != -1 && WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
}

struct Opened {
    int err = 1;
    qm_drive* h = nullptr;
    qm_summary s{};
    explicit Opened(const std::string& path) : h(qm_open(path.c_str(), &err)) { qm_summary_get(h, &s); }
    ~Opened() { qm_close(h); }
};

std::string make_drive(const TempDir& dir, int days = 40) {
    deck::StatsOptions o;
    o.seed = 3, o.days = days;
    EXPECT_EQ(deck::write_statistics(dir.path(), o, false), "");
    return dir.path();
}

// Each state made through the command line; a lone backup is one save behind the drive's latest.
TEST(DriveOpen, EveryDeckStateGivesItsCodeAndCopyChoice) {
    const struct { const char* options; int code; uint32_t backup, both, days; } cases[] = {
        {"", QM_OK, 0, 1, 240}, {"--only-bak", QM_OK, 1, 0, 239}, {"--torn-db", QM_OK, 1, 0, 239},
        {"--newer-bak", QM_OK, 1, 1, 240}, {"--full-ring", QM_OK, 0, 1, 1024}, {"--newer-bak --days 0", QM_OK, 1, 1, 0},
        {"--both-damaged", QM_EBADSTATS, 0, 0, 0}, {"--key-only", QM_ENOSTATS, 0, 0, 0},
        {"--no-key", QM_ENOTDRIVE, 0, 0, 0}, {"--foreign-key", QM_EBADSTATS, 0, 0, 0},
    };
    qm_summary normal{};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.options);
        TempDir dir;
        std::vector<std::string> args = {"make", dir.path(), "--docs", "0"};
        std::istringstream words(c.options);
        for (std::string w; words >> w;) args.push_back(w);
        ASSERT_EQ(run_deck(args), 0);
        Opened d(dir.path());
        ASSERT_EQ(d.err, c.code) << qm_strerror(d.err);
        ASSERT_EQ(d.h != nullptr, c.code == QM_OK);
        EXPECT_EQ(std::tuple(d.s.from_backup, d.s.both_valid, d.s.n_days), std::tuple(c.backup, c.both, c.days));
        if (c.backup && !c.both) { EXPECT_TRUE(d.s.seq + 1 == normal.seq && d.s.words < normal.words); }
        if (d.h && !c.days) { EXPECT_EQ(d.s.first_day + d.s.streak_best, 0u); }
        if (*c.options) continue;
        normal = d.s;  // a second make over a drive needs --force and changes nothing without it
        const std::string before = slurp(dir / ".qm/drive.key") + slurp(dir / "stats.db");
        EXPECT_EQ(run_deck(args), 1);
        EXPECT_EQ(slurp(dir / ".qm/drive.key") + slurp(dir / "stats.db"), before);
    }
}

// What may stand where a drive file belongs. A link points at a good copy outside the drive.
enum Kind { Real, Missing, Link, Fifo, Shorter, Longer, Empty, Folder, SameAsDb, BadMagic };

void place(const std::string& path, Kind kind, std::string real, const TempDir& out) {
    fs::remove_all(path);
    const std::string outside = out / fs::path(path).filename().string();
    switch (kind) {
        case Missing: return;
        case Link: spit(outside, real); return fs::create_symlink(outside, path);
        case Fifo: ASSERT_EQ(mkfifo(path.c_str(), 0600), 0); return;
        case Folder: fs::create_directories(path); return;
        case Shorter: real.pop_back(); break;
        case Longer: real += 'x'; break;
        case Empty: real.clear(); break;
        case BadMagic: real[7] ^= 1; break;
        default: break;
    }
    spit(path, real);
}

// Equal sequence numbers keep the current copy; separators after the path name the same drive.
TEST(HostileDrive, LinksFifosAndMisshapenFilesCountAsMissing) {
    alarm(60);  // a read that blocked on a FIFO fails by the alarm instead of hanging the suite
    const int OK = QM_OK, NOSTATS = QM_ENOSTATS, BAD = QM_EBADSTATS, NOTDRIVE = QM_ENOTDRIVE;
    const struct { Kind db, bak; int code; uint32_t backup = 0, both = 0; Kind key = Real; } cases[] = {
        {Link, Real, OK, 1}, {Real, Link, OK}, {Fifo, Real, OK, 1}, {Real, Fifo, OK}, {Longer, Real, OK, 1},
        {Folder, Real, OK, 1}, {Link, Link, NOSTATS}, {Fifo, Missing, NOSTATS}, {Longer, Missing, NOSTATS},
        {Empty, Missing, BAD}, {Real, SameAsDb, OK, 0, 1}, {Real, Real, NOTDRIVE, 0, 0, Shorter},
        {Real, Real, NOTDRIVE, 0, 0, Longer}, {Real, Real, NOTDRIVE, 0, 0, BadMagic},
        {Real, Real, NOTDRIVE, 0, 0, Link}, {Real, Real, NOTDRIVE, 0, 0, Fifo}, {Real, Real, NOTDRIVE, 0, 0, Folder},
    };
    TempDir dir, linked;
    make_drive(dir);
    const std::string db = slurp(dir / "stats.db"), bak = slurp(dir / "stats.bak"), key = slurp(dir / ".qm/drive.key");
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.db << " " << c.bak << " " << c.key);
        TempDir out;
        place(dir / "stats.db", c.db, db, out);
        place(dir / "stats.bak", c.bak, c.bak == SameAsDb ? db : bak, out);
        place(dir / ".qm/drive.key", c.key, key, out);
        Opened d(dir.path() + "/\\/");
        EXPECT_EQ(d.err, c.code) << qm_strerror(d.err);
        char id[33];
        const bool keyed = c.code != QM_ENOTDRIVE;
        EXPECT_EQ(std::pair(qm_is_drive(dir.path().c_str()), qm_key_drive_id_hex(dir.path().c_str(), id)),
                  std::pair(int(keyed), keyed ? QM_OK : QM_ENOTDRIVE));
        EXPECT_EQ(std::pair(d.s.from_backup, d.s.both_valid), std::pair(c.backup, c.both));
    }
    fs::remove_all(dir / ".qm");
    spit(linked / "qm/drive.key", key);
    fs::create_directory_symlink(linked / "qm", dir / ".qm");
    char id[33];
    EXPECT_EQ(std::tuple(qm_is_drive(dir.path().c_str()), qm_key_drive_id_hex(dir.path().c_str(), id),
                         Opened(dir.path()).err), std::tuple(0, QM_ENOTDRIVE, QM_ENOTDRIVE));
    alarm(0);
}

TEST(Provision, WithoutForceKeepsTheKeyWithForceReplacesAllFourNeverThroughALink) {
    TempDir dir, bare, out, linked_key, linked_folder;
    make_drive(dir);
    const std::string key = slurp(dir / ".qm/drive.key");
    EXPECT_EQ(qm_provision(dir.path().c_str(), 0), QM_EHASKEY);
    EXPECT_EQ(slurp(dir / ".qm/drive.key"), key);
    EXPECT_EQ(qm_provision(dir.path().c_str(), 1), QM_OK);
    const std::string fresh = slurp(dir / ".qm/drive.key");
    ASSERT_EQ(fresh.size(), 120u);
    EXPECT_EQ(fresh.substr(0, 8), key.substr(0, 8));
    for (size_t f = 8; f < 120; f += 16) EXPECT_NE(fresh.substr(f, 16), key.substr(f, 16)) << "every key changes " << f;
    EXPECT_EQ(Opened(dir.path()).err, QM_EBADSTATS);
    EXPECT_EQ(std::distance(fs::directory_iterator(dir / ".qm"), {}), 1) << "no temporary file is left behind";
    EXPECT_EQ(qm_provision(bare.path().c_str(), 0), QM_OK);
    EXPECT_EQ(fs::status(bare / ".qm").permissions() & fs::perms::all, fs::perms::owner_all);
    EXPECT_EQ(std::pair(Opened(bare.path()).err, fs::exists(bare / "stats.db")), std::pair(QM_ENOSTATS, false));
    EXPECT_EQ(qm_provision("/proc/no-such-place/drive", 0), QM_EIO);
    const std::string deep = dir.path() + "/" + std::string(1100, 'd');
    EXPECT_EQ(std::pair(qm_provision(deep.c_str(), 0), Opened(deep).err), std::pair(QM_EIO, QM_ENOTDRIVE));
    spit(out / "precious", "the user's own file\n");
    fs::create_directories(linked_key / ".qm");
    fs::create_symlink(out / "precious", linked_key / ".qm/drive.key");
    EXPECT_EQ(qm_provision(linked_key.path().c_str(), 1), QM_OK);
    EXPECT_TRUE(!fs::is_symlink(linked_key / ".qm/drive.key") && qm_is_drive(linked_key.path().c_str()) == 1);
    fs::create_directory_symlink(out.path(), linked_folder / ".qm");
    EXPECT_EQ(qm_provision(linked_folder.path().c_str(), 1), QM_EIO);
    EXPECT_EQ(slurp(out / "precious"), "the user's own file\n");
    EXPECT_EQ(std::distance(fs::directory_iterator(out.path()), {}), 1) << "nothing was written outside";
}

TEST(DriveHandle, DaysSortedAndCappedPagesRoundUpAndKeysInHex) {
    TempDir dir;
    Opened d(make_drive(dir, 300));
    std::vector<qm_day> days(QM_RING_SLOTS + 5, qm_day{7, 7, 7});
    EXPECT_EQ(qm_days_get(d.h, days.data(), 0), 0);
    EXPECT_EQ(days[0].day, 7u) << "nothing copied";
    const int n = qm_days_get(d.h, days.data(), int(days.size()));
    uint64_t words = days[0].words;
    for (int i = 1; i < n; ++i) { words += days[i].words; EXPECT_LT(days[i - 1].day, days[i].day); }
    EXPECT_EQ(std::tuple(uint32_t(n), d.s.words, d.s.first_day, d.s.last_day),
              std::tuple(d.s.n_days, words, days[0].day, days[n - 1].day)) << "counters agree with the days";
    EXPECT_EQ(qm_days_get(d.h, days.data(), 5), 5);
    char id[33], up[65], hx[3], key_id[33];
    ASSERT_EQ(qm_drive_id_hex(d.h, id) | qm_upload_key_hex(d.h, up), 0);
    ASSERT_EQ(qm_key_drive_id_hex((dir.path() + "/").c_str(), key_id), QM_OK);
    EXPECT_STREQ(key_id, id) << "the key file alone names the drive";
    const std::string key = slurp(dir / ".qm/drive.key");
    std::string hex;
    for (size_t i = 8; i < 120; ++i) std::snprintf(hx, sizeof hx, "%02x", uint8_t(key[i])), hex += hx;
    EXPECT_EQ(id + std::string(up), hex.substr(0, 32) + hex.substr(160));
    EXPECT_EQ(std::memcmp(qm_upload_key(d.h), key.data() + 88, 32), 0);
    qm_drive_key k;
    qm_stats a;
    ASSERT_EQ(drivekey_unpack(reinterpret_cast<const uint8_t*>(key.data()), unsigned(key.size()), &k), 0);
    fs::remove(dir / "stats.bak");
    for (auto [total, pages] : {std::pair{0u, 0u}, {1u, 1u}, {250u, 1u}, {251u, 2u}, {UINT32_MAX, 17179870u}}) {
        statsdb_reset(&a);
        a.words = total;
        std::string img(QM_STATS_FILE_SIZE, '\0');
        statsdb_encode(&a, k.enc_key, k.mac_key, k.drive_id, 1, reinterpret_cast<uint8_t*>(img.data()), nullptr);
        spit(dir / "stats.db", img);
        EXPECT_EQ(Opened(dir.path()).s.pages, pages) << total;
    }
}

// Every entry point refuses null or negative arguments with its documented result.
TEST(Arguments, BadInputsAreRefusedAndUnknownCodesNamedSo) {
    char c[128];
    uint64_t v = 7;
    u64_to_hex16(0x0123456789abcdefULL, c);
    EXPECT_STREQ(c, "0123456789abcdef");
    EXPECT_EQ(hex16_to_u64("FEDCBA9876543210", &v), 0);
    EXPECT_EQ(v, 0xfedcba9876543210ULL);
    const std::string unknown = qm_strerror(1);  // however far out, no named code's text
    for (int code : {-10, 2, INT32_MIN, INT32_MAX}) EXPECT_EQ(qm_strerror(code), unknown) << code;
    for (int code = QM_ENOHISTORY; code <= QM_OK; ++code) EXPECT_NE(qm_strerror(code), unknown) << code;
    TempDir dir;
    Opened d(make_drive(dir));
    spit(dir / ".qmv/a.txt/history.log", "1\t0\tmain\tt\t0\t1\tv1\t2025-01-01 00:00:00\n");
    int32_t herr = 0, err = 0;
    const char *s = "2025-01-01 00:00:00", *root = dir.path().c_str();
    qm_history* h = qm_history_open(root, "a.txt", &herr);
    ASSERT_TRUE(h && d.h);
    uint8_t u[64] = {};
    qm_day day; qm_diff_row row; qm_version_entry e;  // out-parameters the calls must not reach
    auto msg = [](auto... args) { return qm_update_message(args..., 99); };
    const int E = QM_EARG;
#define REFUSED(call, want) {#call, int(call), want}
    const struct { const char* call; int got, want; } cases[] = {
        REFUSED(qm_open(nullptr, &err) == nullptr && err == E, 1), REFUSED(qm_provision(nullptr, 0), E),
        REFUSED(qm_is_drive(nullptr), 0), REFUSED(qm_key_drive_id_hex(nullptr, c), E),
        REFUSED(qm_key_drive_id_hex(root, nullptr), E), REFUSED(qm_summary_get(nullptr, &d.s), E),
        REFUSED(qm_summary_get(d.h, nullptr), E), REFUSED(qm_days_get(nullptr, &day, 1), E),
        REFUSED(qm_days_get(d.h, &day, -1), E), REFUSED(qm_drive_id_hex(nullptr, c), E),
        REFUSED(qm_upload_key_hex(d.h, nullptr), E), REFUSED(qm_upload_key(nullptr) == nullptr, 1),
        REFUSED(qm_random_bytes(nullptr, 4), E), REFUSED(qm_export_json(nullptr, c, 10), E),
        REFUSED(qm_sign_upload(nullptr, "0", u, 0, c), E), REFUSED(qm_sign_upload(d.h, nullptr, u, 0, c), E),
        REFUSED(qm_sign_upload(d.h, "0", nullptr, 0, c), E), REFUSED(qm_sign_upload(d.h, "0", u, 0, nullptr), E),
        REFUSED(qm_sign_upload(d.h, "0", u, -1, c), E),
        REFUSED(qm_history_open(nullptr, "a", &herr) == nullptr && herr == E, 1),
        REFUSED(qm_history_open(root, nullptr, &herr) == nullptr && herr == E, 1),
        REFUSED(qm_history_get(nullptr, 0, &e), E), REFUSED(qm_history_get(h, -1, &e), E),
        REFUSED(qm_history_get(h, 1, &e), E), REFUSED(qm_version_read(h, 1, nullptr, 4), E),
        REFUSED(qm_version_read(h, 1, u, 0), E), REFUSED(qm_version_read(h, 99, u, 4), E),
        REFUSED(qm_doc_read(nullptr, "a.txt", u, 4), E), REFUSED(qm_doc_read(root, "a.txt", u, 0), E),
        REFUSED(qm_qmv_revert(nullptr, 1, s), E), REFUSED(qm_qmv_revert(h, 1, nullptr), E),
        REFUSED(qm_qmv_docs(nullptr, c, 10), E), REFUSED(qm_qmv_docs(root, c, 0), E),
        REFUSED(qm_diff(nullptr, 0, "", 0, &row, 1), E), REFUSED(qm_diff("", 0, nullptr, 0, &row, 1), E),
        REFUSED(qm_diff("", 0, "", 0, nullptr, 1), E), REFUSED(qm_diff("", 0, "", 0, &row, 0), E),
        REFUSED(qm_diff("", -1, "", 0, &row, 1), E),
        REFUSED(qm_diff_with_scratch("", 0, "", 0, &row, 1, nullptr, 64), E),
        REFUSED(diff_lines("", 0, "", 0, &row, 1, nullptr, 64), DIFF_LINES_FAILED),
        REFUSED(msg(nullptr, "b", "1", "s", 1, c), E), REFUSED(msg("a", nullptr, "1", "s", 1, c), E),
        REFUSED(msg("a", "b", nullptr, "s", 1, c), E), REFUSED(msg("a", "b", "1", nullptr, 1, c), E),
        REFUSED(msg("a", "b", "1", "s", 1, nullptr), E), REFUSED(msg("a", "b", "1", "s", -1, c), E),
        REFUSED(qm_update_verify(nullptr, u, u), 0), REFUSED(qm_update_verify("m", nullptr, u), 0),
        REFUSED(qm_update_verify("m", u, nullptr), 0), REFUSED(qm_ed25519_verify(nullptr, 1, u, u), 0),
        REFUSED(hex16_to_u64("0123456789abcdeg", &v), HEX16_EBAD), REFUSED(hex16_to_u64("01234", &v), HEX16_EBAD),
    };
#undef REFUSED
    for (const auto& k : cases) EXPECT_EQ(k.got, k.want) << k.call;
    qm_history_close(h);
}

}  // namespace
