// A drive's statistics as published: counts only, read from the drive's export document.
#pragma once
#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

struct PublishedDay {
    uint32_t day = 0;  // days since 1970-01-01
    uint32_t words = 0;
    uint32_t secs = 0;
};

struct PublishedStats {
    static constexpr std::array<const char*, 9> kCounterNames = {
        "sessions", "write_secs", "longest_secs", "words", "chars", "sentences", "newlines", "saves", "created"};
    enum Counter { Sessions, WriteSecs, LongestSecs, Words, Chars, Sentences, Newlines, Saves, Created };

    uint32_t seq = 0;
    std::array<uint32_t, 9> counters{};
    uint32_t streak_current = 0;
    uint32_t streak_best = 0;
    uint32_t days_written = 0;
    std::vector<PublishedDay> days;  // ascending, one per date
};

// The ring on a drive holds at most this many days, so no honest export lists more.
constexpr size_t kMaxPublishedDays = 1024;

// Reads an export document for drive_id (32 lower-case hex digits). Either the statistics or a
// sentence saying what is wrong with the document.
std::variant<PublishedStats, std::string> read_export(std::string_view body, std::string_view drive_id);

// "YYYY-MM-DD" to days since 1970-01-01; false for anything that is not a real date from year 1 on.
bool parse_date(std::string_view text, uint32_t& day);
std::string format_date(uint32_t day);

// Packing of the day list for storage: 12 bytes a day, little-endian.
std::string pack_days(const std::vector<PublishedDay>& days);
std::vector<PublishedDay> unpack_days(std::string_view blob);
