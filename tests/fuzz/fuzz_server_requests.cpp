// Request bodies and statistics uploads as the account service reads them, from arbitrary bytes:
// no crash, no unbounded recursion, and whatever is accepted holds together.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "json.h"
#include "published_stats.h"

namespace {

// Every string the reader accepts survives writing and reading back unchanged.
void check_strings(const json::Value& v) {
    if (v.kind == json::Value::Kind::String) {
        auto again = json::parse(json::quote(v.text));
        if (!again || again->text != v.text) std::abort();
    }
    for (const json::Value& item : v.items) check_strings(item);
    for (const auto& [key, member] : v.members) check_strings(member);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    if (auto doc = json::parse(text)) check_strings(*doc);
    auto read = read_export(text, "00112233445566778899aabbccddeeff");
    if (auto* stats = std::get_if<PublishedStats>(&read)) {
        if (stats->days.size() > kMaxPublishedDays) std::abort();
        for (size_t i = 1; i < stats->days.size(); ++i)
            if (stats->days[i].day <= stats->days[i - 1].day) std::abort();
        uint32_t day = 0;
        for (const PublishedDay& d : stats->days)
            if (!parse_date(format_date(d.day), day) || day != d.day) std::abort();
        if (unpack_days(pack_days(stats->days)).size() != stats->days.size()) std::abort();
    }
    return 0;
}
