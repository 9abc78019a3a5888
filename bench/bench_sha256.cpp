// SHA-256 throughput on 1 MiB buffers: the portable and hardware paths beside OpenSSL.
#include <openssl/sha.h>

#include <vector>

#include "qm_core_internal.h"
#include "ratio_reporter.h"

namespace {

const std::vector<uint8_t>& buffer() {
    static std::vector<uint8_t> b = [] {
        std::vector<uint8_t> v(1 << 20);
        for (size_t i = 0; i < v.size(); ++i) v[i] = uint8_t(i * 131 + 7);
        return v;
    }();
    return b;
}

void hash_with_core(benchmark::State& state, int impl) {
    if (sha256_select(impl) != 0) {
        state.SkipWithError("path not available on this machine");
        return;
    }
    uint8_t out[32];
    for (auto _ : state) {
        sha256(buffer().data(), buffer().size(), out);
        benchmark::DoNotOptimize(out);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(buffer().size()));
    sha256_select(QM_SHA256_AUTO);
}

void BM_Sha256Portable(benchmark::State& s) { hash_with_core(s, QM_SHA256_PORTABLE); }
void BM_Sha256Hardware(benchmark::State& s) { hash_with_core(s, QM_SHA256_HARDWARE); }
void BM_Sha256OpenSsl(benchmark::State& state) {
    uint8_t out[32];
    for (auto _ : state) {
        SHA256(buffer().data(), buffer().size(), out);
        benchmark::DoNotOptimize(out);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(buffer().size()));
}

BENCHMARK(BM_Sha256OpenSsl)->MinTime(0.5);
BENCHMARK(BM_Sha256Hardware)->MinTime(0.5);
BENCHMARK(BM_Sha256Portable)->MinTime(0.5);

void print_ratios(const RatioReporter& r) {
    double base = r.throughput("BM_Sha256OpenSsl/min_time:0.500");
    for (const char* name : {"BM_Sha256Hardware/min_time:0.500", "BM_Sha256Portable/min_time:0.500"}) {
        double t = r.throughput(name);
        if (base > 0 && t > 0)
            std::printf("ratio %-34s %6.1f MB/s vs OpenSSL %6.1f MB/s = %.2fx\n", name, t / 1e6, base / 1e6, t / base);
    }
    std::printf("goal: hardware path >= 0.95x OpenSSL\n");
}

}  // namespace

int main(int argc, char** argv) { return run_with_ratios(argc, argv, print_ratios); }
