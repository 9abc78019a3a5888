// Reading the writer's output: one line at a time, each turned into what it reports. Plain C++
// so the fuzzer can take it on its own; the writer's output is outside input like any other.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>

struct WriterLine {
    enum Kind { Other, Checked, Progress, Verified, Done, Error };
    Kind kind = Other;
    double done = 0;   // Checked, Progress and Verified: blocks probed, bytes written or checked so far, within int64
    double total = 0;  // Checked, Progress and Verified: in all, above 0
    std::string message;  // Error: the text after "ERR", trimmed of blanks
};

// "C probed total", "P written total", "V checked total", "DONE", "ERR message"; anything else, and malformed
// reports, are Other. Surrounding white space is ignored.
WriterLine parseWriterLine(std::string_view line);

// Lines longer than this are not read as reports at all: a writer never prints one.
constexpr size_t kWriterLineLimit = 1023;
