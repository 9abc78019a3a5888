#include "published_stats.h"

#include <chrono>
#include <cstdio>

#include "json.h"

namespace {

using namespace std::chrono;

constexpr int kExportFormat = 2;

std::string invalid(const std::string& what) { return "The statistics are not in the expected form: " + what + "."; }

bool read_unsigned(const json::Value& object, const char* key, uint32_t& out) {
    const json::Value* v = object.find(key);
    if (!v) return false;
    auto n = v->as_unsigned();
    if (!n) return false;
    out = uint32_t(*n);
    return true;
}

std::string read_day(const json::Value& item, PublishedDay& out) {
    if (item.kind != json::Value::Kind::Object) return invalid("every entry of \"days\" must be an object");
    auto date = item.string_at("date");
    if (!date || !parse_date(*date, out.day)) return invalid("a day has no valid \"date\" (YYYY-MM-DD)");
    if (!read_unsigned(item, "words", out.words) || !read_unsigned(item, "secs", out.secs))
        return invalid("a day lacks whole-number \"words\" or \"secs\"");
    return {};
}

std::string read_days(const json::Value& doc, std::vector<PublishedDay>& days) {
    const json::Value* list = doc.find("days");
    if (!list || list->kind != json::Value::Kind::Array) return invalid("\"days\" must be a list");
    if (list->items.size() > kMaxPublishedDays) return invalid("more days than a drive can hold");
    for (const json::Value& item : list->items) {
        PublishedDay d;
        if (auto error = read_day(item, d); !error.empty()) return error;
        if (!days.empty() && d.day <= days.back().day) return invalid("the days must be in ascending date order");
        days.push_back(d);
    }
    return {};
}

std::string read_counts(const json::Value& doc, PublishedStats& s) {
    const json::Value* counters = doc.find("counters");
    if (!counters || counters->kind != json::Value::Kind::Object) return invalid("\"counters\" must be an object");
    for (size_t i = 0; i < s.counters.size(); ++i)
        if (!read_unsigned(*counters, PublishedStats::kCounterNames[i], s.counters[i]))
            return invalid(std::string("the counter \"") + PublishedStats::kCounterNames[i] +
                           "\" is missing or not a whole number");
    const json::Value* streak = doc.find("device_streak");
    if (!streak || streak->kind != json::Value::Kind::Object || !read_unsigned(*streak, "current", s.streak_current) ||
        !read_unsigned(*streak, "best", s.streak_best) || !read_unsigned(*streak, "days_written", s.days_written))
        return invalid("\"device_streak\" needs whole-number \"current\", \"best\" and \"days_written\"");
    return {};
}

}  // namespace

std::variant<PublishedStats, std::string> read_export(std::string_view body, std::string_view drive_id) {
    auto doc = json::parse(body);
    if (!doc || doc->kind != json::Value::Kind::Object) return invalid("the body is not a JSON object");
    const json::Value* format = doc->find("format");
    if (!format || format->as_unsigned() != uint64_t(kExportFormat))
        return invalid("only format 2 is accepted; update the app");
    if (doc->string_at("drive_id") != drive_id)
        return invalid("the \"drive_id\" inside differs from the drive in the address");
    PublishedStats s;
    if (!read_unsigned(*doc, "seq", s.seq)) return invalid("\"seq\" must be a whole number");
    if (auto error = read_counts(*doc, s); !error.empty()) return error;
    if (auto error = read_days(*doc, s.days); !error.empty()) return error;
    return s;
}

bool parse_date(std::string_view text, uint32_t& day) {
    if (text.size() != 10 || text[4] != '-' || text[7] != '-') return false;
    int parts[3] = {0, 0, 0};
    const size_t starts[3] = {0, 5, 8}, lengths[3] = {4, 2, 2};
    for (int p = 0; p < 3; ++p)
        for (size_t i = starts[p]; i < starts[p] + lengths[p]; ++i) {
            if (text[i] < '0' || text[i] > '9') return false;
            parts[p] = parts[p] * 10 + (text[i] - '0');
        }
    year_month_day ymd{year{parts[0]}, month{unsigned(parts[1])}, std::chrono::day{unsigned(parts[2])}};
    if (parts[0] < 1970 || !ymd.ok()) return false;
    day = uint32_t(sys_days(ymd).time_since_epoch().count());
    return true;
}

std::string format_date(uint32_t day) {
    year_month_day ymd{sys_days{days{day}}};
    char buf[16];
    std::snprintf(buf, sizeof buf, "%04d-%02u-%02u", int(ymd.year()), unsigned(ymd.month()), unsigned(ymd.day()));
    return buf;
}

namespace {

void put_u32(std::string& out, uint32_t v) {
    for (int i = 0; i < 4; ++i) out += char(v >> (8 * i) & 0xFF);
}

uint32_t get_u32(std::string_view in, size_t at) {
    uint32_t v = 0;
    for (int i = 3; i >= 0; --i) v = v << 8 | (unsigned char)in[at + size_t(i)];
    return v;
}

}  // namespace

std::string pack_days(const std::vector<PublishedDay>& days) {
    std::string out;
    out.reserve(days.size() * 12);
    for (const PublishedDay& d : days) put_u32(out, d.day), put_u32(out, d.words), put_u32(out, d.secs);
    return out;
}

std::vector<PublishedDay> unpack_days(std::string_view blob) {
    std::vector<PublishedDay> days;
    for (size_t at = 0; at + 12 <= blob.size(); at += 12)
        days.push_back({get_u32(blob, at), get_u32(blob, at + 4), get_u32(blob, at + 8)});
    return days;
}
