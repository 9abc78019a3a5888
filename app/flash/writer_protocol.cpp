#include "writer_protocol.h"

#include <charconv>
#include <cmath>
#include <vector>

namespace {

bool is_space(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; }

std::string_view trimmed(std::string_view s, bool (*space)(char)) {
    while (!s.empty() && space(s.front())) s.remove_prefix(1);
    while (!s.empty() && space(s.back())) s.remove_suffix(1);
    return s;
}

std::vector<std::string_view> pieces(std::string_view s) {
    std::vector<std::string_view> out;
    while (!s.empty()) {
        size_t end = s.find(' ');
        if (end != 0) out.push_back(s.substr(0, end));
        if (end == std::string_view::npos) break;
        s.remove_prefix(end + 1);
    }
    return out;
}

// A decimal number, all of the piece, finite and inside a signed 64-bit count.
bool count_of(std::string_view piece, double* out) {
    double v = 0;
    auto [end, ec] = std::from_chars(piece.data(), piece.data() + piece.size(), v, std::chars_format::fixed);
    if (ec != std::errc() || end != piece.data() + piece.size() || !std::isfinite(v)) return false;
    if (v < -9.2e18 || v > 9.2e18) return false;
    *out = v;
    return true;
}

// "C probed total", "P written total" and "V checked total": exactly three pieces, a total above 0.
WriterLine report(WriterLine::Kind kind, std::string_view line) {
    std::vector<std::string_view> p = pieces(line);
    double done = 0, total = 0;
    if (p.size() != 3 || !count_of(p[1], &done) || !count_of(p[2], &total) || total <= 0 || done < 0) return {};
    WriterLine r;
    r.kind = kind;
    r.done = done;
    r.total = total;
    return r;
}

}  // namespace

WriterLine parseWriterLine(std::string_view raw) {
    if (raw.size() > kWriterLineLimit + 1) return {};
    std::string_view line = trimmed(raw, is_space);
    if (line.starts_with("C ")) return report(WriterLine::Checked, line);
    if (line.starts_with("P ")) return report(WriterLine::Progress, line);
    if (line.starts_with("V ")) return report(WriterLine::Verified, line);
    WriterLine r;
    if (line == "DONE") {
        r.kind = WriterLine::Done;
        return r;
    }
    if (line.starts_with("ERR")) {
        r.kind = WriterLine::Error;
        r.message = std::string(trimmed(line.substr(3), [](char c) { return c == ' ' || c == '\t'; }));
        return r;
    }
    return {};
}
