#include "profile_page.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>

namespace {

constexpr int kWeeks = 53;
constexpr int kCell = 11, kGap = 2, kLeft = 28, kTop = 16;

// Monday first; 1970-01-01 was a Thursday.
int weekday(uint32_t day) { return int((day + 3) % 7); }

unsigned month_index(uint32_t day) {
    using namespace std::chrono;
    return unsigned(year_month_day{sys_days{days{day}}}.month()) - 1;
}

const char* shade(uint32_t words, uint32_t peak) {
    if (words == 0) return "#e0e0e0";
    double ratio = peak ? double(words) / double(peak) : 1.0;
    if (ratio <= 0.25) return "#b0cce3";
    if (ratio <= 0.5) return "#6ba6d1";
    if (ratio <= 0.8) return "#2b75b5";
    return "#0f4a85";
}

std::string format(const char* fmt, auto... args) {
    char buf[512];
    std::snprintf(buf, sizeof buf, fmt, args...);
    return buf;
}

// The 53 weeks ending at the latest day written, as on the app's Statistics tab.
std::string heat_map(const std::vector<PublishedDay>& days) {
    if (days.empty()) return "<p>No writing days published yet.</p>";
    std::map<uint32_t, uint32_t> words;
    for (const PublishedDay& d : days) words[d.day] = d.words;
    uint32_t latest = days.back().day;
    int64_t first = int64_t(latest) - weekday(latest) - int64_t(kWeeks - 1) * 7;
    uint32_t peak = 0;
    for (const PublishedDay& d : days)
        if (int64_t(d.day) >= first) peak = std::max(peak, d.words);
    int width = kLeft + kWeeks * (kCell + kGap), height = kTop + 7 * (kCell + kGap);
    std::string svg = format("<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%d\" height=\"%d\" role=\"img\" "
                             "aria-label=\"Words written per day over the last year\">",
                             width, height);
    static const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    static const char* kRows[] = {"Mon", "", "Wed", "", "Fri", "", ""};
    for (int d = 0; d < 7; ++d)
        if (*kRows[d])
            svg += format("<text x=\"0\" y=\"%d\" class=\"l\">%s</text>", kTop + d * (kCell + kGap) + 9, kRows[d]);
    std::string shown_month;
    for (int w = 0; w < kWeeks; ++w) {
        int64_t monday = first + int64_t(w) * 7;
        std::string month = kMonths[month_index(uint32_t(std::max<int64_t>(monday, 0)))];
        if (month != shown_month && w < kWeeks - 2)
            svg += format("<text x=\"%d\" y=\"10\" class=\"l\">%s</text>", kLeft + w * (kCell + kGap), month.c_str());
        shown_month = month;
        for (int d = 0; d < 7; ++d) {
            int64_t day = monday + d;
            if (day < 0 || day > int64_t(latest)) continue;
            auto it = words.find(uint32_t(day));
            uint32_t n = it == words.end() ? 0 : it->second;
            svg += format("<rect x=\"%d\" y=\"%d\" width=\"%d\" height=\"%d\" rx=\"2\" fill=\"%s\">"
                          "<title>%s: %s words</title></rect>",
                          kLeft + w * (kCell + kGap), kTop + d * (kCell + kGap), kCell, kCell, shade(n, peak),
                          format_date(uint32_t(day)).c_str(), grouped(n).c_str());
        }
    }
    return svg + "</svg>";
}

std::string row(const char* label, const std::string& value) {
    return std::string("<tr><th>") + label + "</th><td>" + value + "</td></tr>";
}

const char* const kHead =
    "<!DOCTYPE html><html lang=\"en\"><head><meta charset=\"utf-8\">"
    "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">"
    "<style>body{font-family:sans-serif;margin:2em auto;max-width:760px;color:#222;padding:0 1em}"
    "table{border-collapse:collapse;margin-bottom:1.5em}th{text-align:left;font-weight:normal;color:#555;"
    "padding:.2em 2em .2em 0}td{font-weight:bold;text-align:right}.l{font-size:9px;fill:#555}"
    "footer{color:#777;font-size:.85em;margin-top:2em}</style>";

}  // namespace

std::string duration_text(uint32_t secs) {
    if (secs < 60) return format("%us", secs);
    if (secs < 3600) return format("%um %us", secs / 60, secs % 60);
    return format("%uh %um", secs / 3600, secs % 3600 / 60);
}

std::string grouped(uint64_t n) {
    std::string digits = std::to_string(n), out;
    for (size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0) out += ',';
        out += digits[i];
    }
    return out;
}

std::string render_profile_page(const PublishedStats& s, int64_t published_at) {
    using C = PublishedStats;
    std::string html = kHead;
    html += "<title>Writing statistics</title></head><body><h1>Writing statistics</h1>";
    html += "<h2>Totals</h2><table id=\"totals\">";
    html += row("Words", grouped(s.counters[C::Words]));
    html += row("Time writing", duration_text(s.counters[C::WriteSecs]));
    html += row("Writing sessions", grouped(s.counters[C::Sessions]));
    html += row("Longest session", duration_text(s.counters[C::LongestSecs]));
    html += row("Characters typed", grouped(s.counters[C::Chars]));
    html += row("Sentences", grouped(s.counters[C::Sentences]));
    html += row("Saves", grouped(s.counters[C::Saves]));
    html += row("Documents created", grouped(s.counters[C::Created]));
    html += "</table><h2>Streaks</h2><table id=\"streaks\">";
    html += row("Current streak", grouped(s.streak_current) + (s.streak_current == 1 ? " day" : " days"));
    html += row("Best streak", grouped(s.streak_best) + (s.streak_best == 1 ? " day" : " days"));
    html += row("Days written", grouped(s.days_written));
    html += "</table><h2>The last year</h2>";
    html += heat_map(s.days);
    html += "<footer>Only counts are published, never a word of what was written. Published " +
            format_date(uint32_t(published_at / 86400)) + ".</footer></body></html>";
    return html;
}

std::string render_missing_page() {
    return std::string(kHead) +
           "<title>Nothing published</title></head><body><h1>Nothing published here</h1>"
           "<p>No statistics have been published for this drive. Check the address, or publish from the app's "
           "Statistics tab.</p></body></html>";
}
