// Opening a 10,000-entry history log against reading the same file alone.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench_timer.h"
#include "qm_core.h"

namespace {

std::string make_log() {
    std::string log = "QMV\t1\tNovel.md\n";
    char line[256];
    for (int id = 1; id <= 10000; ++id) {
        char kind = "tax"[id % 3];
        std::snprintf(line, sizeof line, "%d\t%d\tmain\t%c\t%016llx\t%d\t%04d-2025-03-%02d %02d.md\t2025-03-%02d %02d:%02d:%02d\t%s\n",
                      id, id - 1, kind, 0x9e3779b97f4a7c15ull * unsigned(id), 20000 + id % 977, id, 1 + id % 28,
                      id % 24, 1 + id % 28, id % 24, id % 60, (id * 7) % 60, kind == 't' ? "saved point" : "");
        log += line;
    }
    return log;
}

}  // namespace

int main() {
    char tmpl[] = "/tmp/qm-bench-history-XXXXXX";
    if (!mkdtemp(tmpl)) return 1;
    std::string root = tmpl, folder = root + "/.qmv/Novel.md", path = folder + "/history.log";
    std::system(("mkdir -p '" + folder + "'").c_str());
    std::string log = make_log();
    FILE* f = std::fopen(path.c_str(), "wb");
    std::fwrite(log.data(), 1, log.size(), f);
    std::fclose(f);

    int32_t count = 0;
    double open_ms = median_ms(30, [&] {
        qm_history* h = qm_history_open(root.c_str(), "Novel.md", nullptr);
        count = qm_history_count(h);
        qm_history_close(h);
    });
    std::vector<char> buf(log.size() + 1);
    double read_ms = median_ms(30, [&] {
        FILE* in = std::fopen(path.c_str(), "rb");
        size_t n = std::fread(buf.data(), 1, buf.size(), in);
        std::fclose(in);
        keep(n);
    });
    char label[96];
    std::snprintf(label, sizeof label, "qm_history_open (%d entries, %zu KiB)", count, log.size() / 1024);
    report(label, open_ms, "reading the log file alone", read_ms, 20);
    std::system(("rm -rf '" + root + "'").c_str());
    return count == 10000 ? 0 : 1;
}
