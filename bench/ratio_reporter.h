// A console reporter that also remembers each benchmark's time and throughput, so a
// benchmark can print its ratios against a baseline measured in the same run.
#pragma once
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>

class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& r : runs) {
            if (r.run_type != Run::RT_Iteration || r.error_occurred) continue;
            std::string name = r.benchmark_name();
            times_[name] = r.GetAdjustedRealTime();
            auto it = r.counters.find("bytes_per_second");
            if (it != r.counters.end()) bytes_per_second_[name] = it->second;
        }
        ConsoleReporter::ReportRuns(runs);
    }

    double throughput(const std::string& name) const { return find(bytes_per_second_, name); }
    // Wall time per iteration, in the benchmark's own time unit.
    double time(const std::string& name) const { return find(times_, name); }

private:
    static double find(const std::map<std::string, double>& m, const std::string& name) {
        auto it = m.find(name);
        return it == m.end() ? 0.0 : it->second;
    }
    std::map<std::string, double> times_, bytes_per_second_;
};

inline int run_with_ratios(int argc, char** argv, void (*print_ratios)(const RatioReporter&)) {
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf("\n");
    print_ratios(reporter);
    benchmark::Shutdown();
    return 0;
}
