// The deck's statistics side: a seeded history of writing days, saved as the deck saves it.
#pragma once
#include <cstdint>
#include <string>

namespace deck {

enum class StatsState {
    Normal,       // both copies valid, stats.db the newer
    OnlyBak,      // stats.db absent
    TornDb,       // stats.db cut short by an interrupted write
    BothDamaged,  // neither copy authenticates
    KeyOnly,      // a key and no statistics
    NoKey,        // statistics but no key file
    ForeignKey,   // statistics written under another drive's key
    NewerBak,     // both valid, the backup copy carries the higher sequence number
};

struct StatsOptions {
    uint64_t seed = 1;
    int days = 240;               // distinct writing days
    uint32_t last_day = 0;        // 0: default_last_day()
    StatsState state = StatsState::Normal;
};

// The day the generated history ends on: a fixed date, so one seed always gives one drive.
uint32_t default_last_day();

// Provisions (or, with force, replaces) the drive key and writes stats.db and stats.bak.
// Without force a folder that already holds a key or statistics is left alone. Returns an empty
// string or a message saying what went wrong.
std::string write_statistics(const std::string& dir, const StatsOptions& options, bool force);

}  // namespace deck
