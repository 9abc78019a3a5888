// The line protocol the app reads on stdout: "C probed total" (the drive's size check),
// "P written total", "V checked total", "DONE", "ERR text".
#pragma once
#include <chrono>
#include <cstdint>
#include <string>

void emit_done();
void emit_error(const std::string& message);

// Progress lines for one phase: at most 20 a second, and one at least every 64 MiB
// unless that would break the rate limit.
class ProgressLine {
public:
    ProgressLine(char tag, uint64_t total);
    void start();                   // "tag 0 total"
    void update(uint64_t done);     // throttled
    void finish(uint64_t done);     // always printed

private:
    void print(uint64_t done);

    char tag_;
    uint64_t total_;
    uint64_t last_done_ = 0;
    std::chrono::steady_clock::time_point last_time_{};
};
