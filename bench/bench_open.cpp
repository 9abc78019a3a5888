// Opening a full 1,024-day drive and reading what the statistics view needs, against a
// plain read of the same two files.
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "qm_core_internal.h"
#include "ratio_reporter.h"

namespace {

// A drive whose ring is full: 1,100 writing days saved as the deck saves them.
std::string make_full_drive() {
    char tmpl[] = "/tmp/qm-bench-open-XXXXXX";
    if (!mkdtemp(tmpl) || qm_provision(tmpl, 0) != 0) std::abort();
    std::string dir = tmpl;
    std::ifstream kf(dir + "/.qm/drive.key", std::ios::binary);
    std::vector<uint8_t> kb((std::istreambuf_iterator<char>(kf)), {});
    qm_drive_key k;
    if (drivekey_unpack(kb.data(), unsigned(kb.size()), &k) != 0) std::abort();
    qm_stats s;
    statsdb_reset(&s);
    std::vector<uint8_t> img(QM_STATS_FILE_SIZE);
    for (uint32_t d = 1; d <= 1100; ++d) statsdb_note_day(&s, 15000 + d + d / 7, d * 13 % 3000, d * 29 % 7000);
    for (const char* name : {"stats.bak", "stats.db"}) {
        static uint32_t seq = 1;
        statsdb_encode(&s, k.enc_key, k.mac_key, k.drive_id, seq++, img.data(), s.chain);
        std::ofstream(dir + "/" + name, std::ios::binary).write(reinterpret_cast<char*>(img.data()), long(img.size()));
    }
    return dir;
}

const std::string& drive() {
    static std::string d = make_full_drive();
    return d;
}

void BM_ReadBothFiles(benchmark::State& state) {
    std::vector<char> buf(QM_STATS_FILE_SIZE);
    for (auto _ : state) {
        for (const char* name : {"/stats.db", "/stats.bak"}) {
            FILE* f = std::fopen((drive() + name).c_str(), "rb");
            benchmark::DoNotOptimize(std::fread(buf.data(), 1, buf.size(), f));
            std::fclose(f);
        }
    }
}

void BM_OpenSummaryDays(benchmark::State& state) {
    std::vector<qm_day> days(QM_RING_SLOTS);
    for (auto _ : state) {
        int err = 0;
        qm_drive* h = qm_open(drive().c_str(), &err);
        qm_summary s;
        qm_summary_get(h, &s);
        int n = qm_days_get(h, days.data(), QM_RING_SLOTS);
        benchmark::DoNotOptimize(n);
        benchmark::DoNotOptimize(s);
        qm_close(h);
        if (n != QM_RING_SLOTS) state.SkipWithError("the ring is not full");
    }
}

void BM_OpenAndExport(benchmark::State& state) {
    std::vector<char> json;
    for (auto _ : state) {
        int err = 0;
        qm_drive* h = qm_open(drive().c_str(), &err);
        int len = qm_export_json(h, nullptr, 0);
        json.resize(size_t(len) + 1);
        qm_export_json(h, json.data(), len + 1);
        benchmark::DoNotOptimize(json.data());
        qm_close(h);
    }
}

BENCHMARK(BM_ReadBothFiles)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_OpenSummaryDays)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_OpenAndExport)->Unit(benchmark::kMicrosecond);

void print_ratios(const RatioReporter& r) {
    double base = r.time("BM_ReadBothFiles");
    for (auto [name, what] : {std::pair{"BM_OpenSummaryDays", "qm_open + summary + days"},
                              {"BM_OpenAndExport", "qm_open + JSON export"}}) {
        double t = r.time(name);
        if (base > 0 && t > 0)
            std::printf("ratio %-26s of a full drive: %7.1f us vs reading both files %5.1f us = %.1fx (goal: well under"
                        " 1000 us)\n", what, t, base, t / base);
    }
}

}  // namespace

int main(int argc, char** argv) { return run_with_ratios(argc, argv, print_ratios); }
