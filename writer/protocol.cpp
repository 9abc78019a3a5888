#include "protocol.h"

#include <cstdio>

namespace {

void emit_line(const std::string& line) {
    std::fputs(line.c_str(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

constexpr auto kMinInterval = std::chrono::milliseconds(50);
constexpr auto kQuietInterval = std::chrono::milliseconds(250);
constexpr uint64_t kMaxBytesBetweenLines = 64ull * 1024 * 1024;

}  // namespace

void emit_done() { emit_line("DONE"); }

void emit_error(const std::string& message) {
    std::string line = "ERR " + message;
    for (char& c : line)
        if (c == '\n') c = ' ';
    emit_line(line);
}

ProgressLine::ProgressLine(char tag, uint64_t total) : tag_(tag), total_(total) {}

void ProgressLine::start() { print(0); }

void ProgressLine::update(uint64_t done) {
    auto since = std::chrono::steady_clock::now() - last_time_;
    if (since < kMinInterval) return;
    if (done - last_done_ >= kMaxBytesBetweenLines || since >= kQuietInterval) print(done);
}

void ProgressLine::finish(uint64_t done) { print(done); }

void ProgressLine::print(uint64_t done) {
    emit_line(std::string(1, tag_) + " " + std::to_string(done) + " " + std::to_string(total_));
    last_done_ = done;
    last_time_ = std::chrono::steady_clock::now();
}
