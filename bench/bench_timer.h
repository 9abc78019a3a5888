// Median wall time of a repeated call, for ratios against a baseline timed in the same run.
#pragma once
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <vector>

template <class F>
double median_ms(int reps, F&& f) {
    std::vector<double> ms;
    f();  // warm caches and the allocator
    for (int r = 0; r < reps; ++r) {
        auto t0 = std::chrono::steady_clock::now();
        f();
        ms.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count());
    }
    std::nth_element(ms.begin(), ms.begin() + long(ms.size() / 2), ms.end());
    return ms[ms.size() / 2];
}

inline void report(const char* what, double ms, const char* baseline, double base_ms, double goal_ms = 0) {
    std::printf("%-64s %8.3f ms   baseline %-28s %9.3f ms   ratio %7.1fx", what, ms, baseline, base_ms,
                base_ms > 0 ? ms / base_ms : 0.0);
    if (goal_ms > 0) std::printf("   goal < %.0f ms: %s", goal_ms, ms < goal_ms ? "met" : "MISSED");
    std::printf("\n");
}

// Keeps a result alive so the optimiser cannot drop the work that made it.
template <class T>
inline void keep(const T& v) {
    asm volatile("" : : "g"(&v) : "memory");
}
