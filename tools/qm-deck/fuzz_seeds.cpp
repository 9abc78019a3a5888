#include "fuzz_seeds.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

#include "documents.h"
#include "qm_core_internal.h"
#include "statistics.h"

namespace deck {
namespace {

namespace fs = std::filesystem;

std::string slurp(const fs::path& path) {
    std::ifstream f(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(f), {});
}

// A scratch drive folder, removed when done.
struct Scratch {
    fs::path path = fs::temp_directory_path() / ("qm-deck-seeds-" + std::to_string(std::random_device{}()));
    ~Scratch() {
        std::error_code ec;
        fs::remove_all(path, ec);
    }
};

// The statistics target's drive mode: mode byte 0, the key file padded to its size, stats.db's
// length (2 bytes, little-endian), stats.db, then stats.bak.
std::string packed_drive(StatsState state, int days, const fs::path& out) {
    Scratch d;
    fs::create_directories(d.path);
    if (std::string err = write_statistics(d.path, StatsOptions{.days = days, .state = state}, true); !err.empty())
        return err;
    std::string key = slurp(d.path / ".qm/drive.key"), db = slurp(d.path / "stats.db");
    key.resize(QM_KEY_FILE_SIZE);
    const char len[2] = {char(db.size() & 0xff), char(db.size() >> 8)};
    return put(out, std::string(1, '\0') + key + std::string(len, 2) + db + slurp(d.path / "stats.bak"));
}

// The statistics target's authenticated mode: mode byte 1 and a plaintext record.
std::string record(const std::vector<uint32_t>& days, uint32_t ring_next, uint32_t ring_used, const fs::path& out) {
    std::mt19937 rng(7);
    qm_stats s;
    statsdb_reset(&s);
    s.sessions = 12, s.write_secs = 3600, s.longest_secs = 900, s.words = 4321, s.chars = 25000;
    s.sentences = 300, s.newlines = 120, s.saves = 48, s.created = 3;
    for (size_t i = 0; i < days.size() && i < QM_RING_SLOTS; ++i)
        s.ring[i] = qm_day{days[i], uint32_t(1 + rng() % 5000), uint32_t(1 + rng() % 9000)};
    s.first_day = *std::min_element(days.begin(), days.end());
    s.last_day = *std::max_element(days.begin(), days.end());
    s.streak_current = 3, s.streak_best = 9, s.days_written = uint32_t(days.size());
    s.ring_next = ring_next, s.ring_used = ring_used;
    return put(out, std::string(1, '\1') + std::string(reinterpret_cast<const char*>(&s), sizeof s));
}

std::string statsdb_seeds(const fs::path& dir) {
    const struct { const char* name; StatsState state; int days; } drives[] = {
        {"deck-full-ring", StatsState::Normal, 1100}, {"deck-newer-bak", StatsState::NewerBak, 240},
        {"deck-torn-db", StatsState::TornDb, 240},    {"deck-only-bak", StatsState::OnlyBak, 240},
        {"deck-foreign-key", StatsState::ForeignKey, 240},
    };
    for (const auto& d : drives)
        if (std::string err = packed_drive(d.state, d.days, dir / d.name); !err.empty()) return err;
    std::vector<uint32_t> full, top;
    for (uint32_t i = 0; i < QM_RING_SLOTS; ++i) full.push_back(16000 + 2 * i), top.push_back(UINT32_MAX - 3 * i);
    std::swap(full[500], full[501]);  // a late entry
    std::vector<uint32_t> twice(full.begin(), full.begin() + 40);
    twice.insert(twice.end(), full.begin(), full.begin() + 40);
    std::string err = record(full, 7, QM_RING_SLOTS, dir / "record-full-ring");
    if (err.empty()) err = record(top, 0, QM_RING_SLOTS, dir / "record-top-days");
    if (err.empty()) err = record(twice, 5000, 70000, dir / "record-bad-indices");  // repaired on reading
    return err;
}

// The history target's named form: flags 0, the name, NUL, the refs file, NUL, the log.
std::string history_seeds(const fs::path& dir) {
    Scratch d;
    fs::create_directories(d.path);
    if (std::string err = write_documents(d.path, DocOptions{.count = 3, .crlf = true, .log_fields = true}, 5);
        !err.empty())
        return err;
    int n = 0;
    for (const auto& e : fs::directory_iterator(d.path / ".qmv")) {
        const std::string name = e.path().filename(), log = slurp(e.path() / "history.log");
        std::string err = put(dir / ("deck-" + std::to_string(n++)),
                              std::string(1, '\0') + name + '\0' + slurp(e.path() / "refs") + '\0' + log);
        if (err.empty() && n == 1) err = put(dir / "deck-log", log);  // the bare form: a log alone
        if (!err.empty()) return err;
    }
    return "";
}

}  // namespace

std::string write_fuzz_seeds(const std::string& dir) {
    std::error_code ec;
    for (const char* target : {"fuzz_statsdb", "fuzz_history"}) fs::create_directories(fs::path(dir) / target, ec);
    if (ec) return "cannot create the seed folders under " + dir;
    std::string err = statsdb_seeds(fs::path(dir) / "fuzz_statsdb");
    return err.empty() ? history_seeds(fs::path(dir) / "fuzz_history") : err;
}

}  // namespace deck
