// Export of a drive whose ring holds all 1,024 days, against opening that drive.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench_timer.h"
#include "qm_core_internal.h"

namespace {

bool write_full_drive(const std::string& root) {
    if (qm_provision(root.c_str(), 0) != 0) return false;
    std::vector<uint8_t> raw(QM_KEY_FILE_SIZE);
    FILE* f = std::fopen((root + "/.qm/drive.key").c_str(), "rb");
    if (!f || std::fread(raw.data(), 1, raw.size(), f) != raw.size()) return false;
    std::fclose(f);
    qm_drive_key key;
    drivekey_unpack(raw.data(), unsigned(raw.size()), &key);
    static qm_stats s;
    statsdb_reset(&s);
    for (uint32_t d = 0; d < 1100; ++d) statsdb_note_day(&s, 16000 + d * 2, 300 + d % 900, 600 + d % 3000);
    std::vector<uint8_t> image(QM_STATS_FILE_SIZE);
    statsdb_encode(&s, key.enc_key, key.mac_key, key.drive_id, 9, image.data(), nullptr);
    f = std::fopen((root + "/stats.db").c_str(), "wb");
    bool ok = f && std::fwrite(image.data(), 1, image.size(), f) == image.size();
    if (f) std::fclose(f);
    return ok;
}

}  // namespace

int main() {
    char tmpl[] = "/tmp/qm-bench-export-XXXXXX";
    if (!mkdtemp(tmpl) || !write_full_drive(tmpl)) return 1;
    qm_drive* h = qm_open(tmpl, nullptr);
    if (!h) return 1;
    qm_summary sum;
    qm_summary_get(h, &sum);

    std::vector<char> buf(size_t(qm_export_json(h, nullptr, 0)) + 1);
    int len = 0;
    // As the application calls it: once to measure, once to fill.
    double export_ms = median_ms(200, [&] {
        len = qm_export_json(h, nullptr, 0);
        len = qm_export_json(h, buf.data(), int(buf.size()));
    });
    double open_ms = median_ms(200, [&] {
        qm_drive* d = qm_open(tmpl, nullptr);
        qm_close(d);
    });
    char label[96];
    std::snprintf(label, sizeof label, "qm_export_json x2 (%u days, %d bytes)", sum.n_days, len);
    report(label, export_ms, "qm_open of the same drive", open_ms);

    // A date costs the same at the end of the day range as at its start (goal: ratio about 1).
    auto dates_of = [](uint32_t first) {
        unsigned sum = 0;
        for (uint32_t i = 0; i < 10000; ++i) {
            unsigned y, m, d;
            qm_day_to_ymd(first + i, &y, &m, &d);
            sum += y + m + d;
        }
        keep(sum);
    };
    double top_ms = median_ms(200, [&] { dates_of(UINT32_MAX - 9999); });
    double first_ms = median_ms(200, [&] { dates_of(1); });
    report("qm_day_to_ymd of the last 10,000 days", top_ms, "of days 1 to 10,000", first_ms);
    qm_close(h);
    std::system((std::string("rm -rf '") + tmpl + "'").c_str());
    return sum.n_days == QM_RING_SLOTS ? 0 : 1;
}
