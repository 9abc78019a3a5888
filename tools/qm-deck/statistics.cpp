// Writes a drive's key and statistics the way the deck does: every writing day is noted
// in the record and saved as a new image with a higher sequence number, the previous
// image kept as the backup copy.
#include "statistics.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <random>
#include <vector>

#include "qm_core_internal.h"

namespace deck {
namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;

struct Image {
    Bytes bytes = Bytes(QM_STATS_FILE_SIZE);
    uint8_t tag[32] = {};
};

struct Day {
    uint32_t day, words, secs, sessions, longest;
};

std::string read_key(const std::string& dir, qm_drive_key* key) {
    std::ifstream f(dir + "/.qm/drive.key", std::ios::binary);
    Bytes buf((std::istreambuf_iterator<char>(f)), {});
    if (drivekey_unpack(buf.data(), unsigned(buf.size()), key) != 0)
        return "the drive key just written does not read back";
    return "";
}

// The first file of an existing drive found in dir, or an empty string.
std::string existing_drive_file(const std::string& dir) {
    std::error_code ec;
    for (const char* name : {".qm/drive.key", "stats.db", "stats.bak"})
        if (fs::exists(fs::path(dir) / name, ec)) return name;
    return "";
}

std::string provision(const std::string& dir, bool force, qm_drive_key* key) {
    int rc = qm_provision(dir.c_str(), force ? 1 : 0);
    if (rc == QM_EHASKEY) return dir + " already holds a drive key; pass --force to replace it";
    if (rc != QM_OK) return std::string("could not write the drive key: ") + qm_strerror(rc);
    return read_key(dir, key);
}

// A plausible writing life: mostly consecutive days with breaks of a few days, word counts
// that vary widely, one to three sessions a day.
std::vector<Day> writing_days(std::mt19937_64& rng, int count, uint32_t last_day) {
    std::geometric_distribution<int> gap(0.55);
    std::lognormal_distribution<double> words(6.4, 0.7);
    std::uniform_int_distribution<int> sessions(1, 3);
    std::vector<Day> days;
    uint32_t day = last_day;
    for (int i = 0; i < count && day > 1; ++i) {
        Day d{};
        d.day = day;
        d.words = std::clamp(uint32_t(words(rng)), 20u, 9000u);
        d.sessions = uint32_t(sessions(rng));
        d.secs = d.words * (90 + uint32_t(rng() % 120)) / 60;
        d.longest = std::min(d.secs, d.secs / d.sessions + uint32_t(rng() % 300));
        days.push_back(d);
        uint32_t step = 1 + uint32_t(gap(rng) / 2 + (rng() % 10 == 0 ? gap(rng) * 3 : 0));
        day = day > step ? day - step : 1;
    }
    std::reverse(days.begin(), days.end());
    return days;
}

void count_day(qm_stats* s, const Day& d, std::mt19937_64& rng) {
    s->sessions += d.sessions;
    s->write_secs += d.secs;
    s->longest_secs = std::max(s->longest_secs, d.longest);
    s->words += d.words;
    s->chars += d.words * 57 / 10;
    s->sentences += d.words / 14 + 1;
    s->newlines += d.words / 45 + d.sessions;
    s->saves += d.sessions * (2 + uint32_t(rng() % 4));
    if (s->days_written == 0 || rng() % 9 == 0) s->created += 1;
    statsdb_note_day(s, d.day, d.words, d.secs);
}

// Now and then the deck learns of a day only after a later one (it was typed up from paper, or
// the clock was off), so that day arrives as a late entry and leaves the streaks alone.
std::vector<size_t> noting_order(std::mt19937_64& rng, size_t n) {
    std::vector<size_t> order(n);
    std::iota(order.begin(), order.end(), size_t(0));
    for (size_t i = 0; i + 2 < n; ++i)  // the newest day is always noted last
        if (rng() % 25 == 0) {
            std::swap(order[i], order[i + 1]);
            ++i;
        }
    return order;
}

// Each save is a new image: a higher seq, and the previous image's tag in the chain field so the
// nonce never repeats under this key.
void save(qm_stats* s, const qm_drive_key& key, uint32_t seq, const Image& previous, Image* out) {
    std::copy(std::begin(previous.tag), std::end(previous.tag), s->chain);
    statsdb_encode(s, key.enc_key, key.mac_key, key.drive_id, seq, out->bytes.data(), out->tag);
}

bool write_bytes(const fs::path& path, const uint8_t* data, size_t n) {
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f.write(reinterpret_cast<const char*>(data), std::streamsize(n));
    return bool(f.flush());
}

std::string write_copies(const std::string& dir, const Image& current, const Image& previous, StatsState state) {
    fs::path db = fs::path(dir) / "stats.db", bak = fs::path(dir) / "stats.bak";
    const Image& db_image = state == StatsState::NewerBak ? previous : current;
    const Image& bak_image = state == StatsState::NewerBak ? current : previous;
    Bytes db_bytes = db_image.bytes, bak_bytes = bak_image.bytes;
    if (state == StatsState::TornDb) db_bytes.resize(4096);
    if (state == StatsState::BothDamaged) {
        db_bytes[5000] ^= 0x20;
        bak_bytes[QM_STATS_FILE_SIZE - 1] ^= 0x01;
    }
    bool ok = state == StatsState::OnlyBak || write_bytes(db, db_bytes.data(), db_bytes.size());
    ok = write_bytes(bak, bak_bytes.data(), bak_bytes.size()) && ok;
    return ok ? "" : "could not write the statistics files in " + dir;
}

}  // namespace

uint32_t default_last_day() {
    using namespace std::chrono;
    return uint32_t((sys_days(year{2026} / November / 20) - sys_days(year{1980} / January / 1)).count() + 1);
}

std::string write_statistics(const std::string& dir, const StatsOptions& o, bool force) {
    std::error_code ec;
    fs::create_directories(dir, ec);
    if (!fs::is_directory(dir)) return "could not create the folder " + dir;
    if (!force) {
        if (std::string file = existing_drive_file(dir); !file.empty())
            return dir + " already holds a drive (" + file + "); pass --force to replace it";
    } else {
        fs::remove(fs::path(dir) / "stats.db", ec);
        fs::remove(fs::path(dir) / "stats.bak", ec);
    }
    qm_drive_key key;
    if (std::string err = provision(dir, force, &key); !err.empty()) return err;
    if (o.state == StatsState::KeyOnly) return "";

    std::mt19937_64 rng(o.seed);
    std::vector<Day> days = writing_days(rng, o.days, o.last_day ? o.last_day : default_last_day());
    qm_stats s;
    statsdb_reset(&s);
    Image previous, current;
    uint32_t seq = 1 + uint32_t(rng() % 50);
    size_t saves = 0;
    for (size_t i : noting_order(rng, days.size())) {
        count_day(&s, days[i], rng);
        previous = current;
        save(&s, key, seq++, previous, &current);
        ++saves;
    }
    // A drive barely written on has still been saved twice, so both copies exist.
    for (; saves < 2; ++saves) {
        previous = current;
        save(&s, key, seq++, previous, &current);
    }
    if (std::string err = write_copies(dir, current, previous, o.state); !err.empty()) return err;

    if (o.state == StatsState::NoKey) fs::remove(fs::path(dir) / ".qm" / "drive.key", ec);
    if (o.state == StatsState::ForeignKey && qm_provision(dir.c_str(), 1) != QM_OK)
        return "could not write the second drive key";
    return "";
}

}  // namespace deck
