// Statistics files and key files from a drive, as arbitrary bytes: the decoder, the copy
// picker, the key unpacking and a whole open. The first input byte picks the mode; in the
// "authenticated" mode the input is a plaintext record encoded under a fixed key, so the
// fuzzer reaches the record handling behind the MAC (odd ring indices, duplicate days).
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "qm_core.h"

namespace {

const qm_drive_key& fixed_key() {
    static qm_drive_key k = [] {
        qm_drive_key key;
        const uint8_t master[] = "fuzzing drive";
        drivekey_derive(master, sizeof master, &key);
        return key;
    }();
    return k;
}

const std::string& drive_dir() {
    static std::string dir = [] {
        char tmpl[] = "/tmp/qm-fuzz-stats-XXXXXX";
        if (!mkdtemp(tmpl)) std::abort();
        mkdir((std::string(tmpl) + "/.qm").c_str(), 0700);
        uint8_t packed[QM_KEY_FILE_SIZE];
        drivekey_pack(&fixed_key(), packed);
        FILE* f = std::fopen((std::string(tmpl) + "/.qm/drive.key").c_str(), "wb");
        std::fwrite(packed, 1, sizeof packed, f);
        std::fclose(f);
        return std::string(tmpl);
    }();
    return dir;
}

void put(const std::string& name, const uint8_t* data, size_t len) {
    FILE* f = std::fopen((drive_dir() + "/" + name).c_str(), "wb");
    if (!f) std::abort();
    if (len) std::fwrite(data, 1, len, f);
    std::fclose(f);
}

// Opens the drive and reads everything the application reads; checks what must always hold.
void open_and_read() {
    int err = 1;
    qm_drive* h = qm_open(drive_dir().c_str(), &err);
    if (!h) {
        if (err >= 0 || std::strcmp(qm_strerror(err), "unknown error") == 0) std::abort();
        return;
    }
    qm_summary s;
    qm_day days[QM_RING_SLOTS];
    if (qm_summary_get(h, &s) != 0 || s.n_days > QM_RING_SLOTS) std::abort();
    int n = qm_days_get(h, days, QM_RING_SLOTS);
    for (int i = 1; i < n; ++i)
        if (days[i - 1].day > days[i].day || days[i].day == 0) std::abort();
    qm_close(h);
}

void raw_bytes(const uint8_t* data, size_t size) {
    qm_stats out;
    const qm_drive_key& k = fixed_key();
    statsdb_decode(data, unsigned(size), k.enc_key, k.mac_key, &out, nullptr, nullptr, nullptr);
    size_t half = size / 2;
    unsigned mask = 0;
    int pick = statsdb_pick(data, unsigned(half), data + half, unsigned(size - half), k.enc_key, k.mac_key, &out,
                            nullptr, nullptr, &mask);
    if (pick < 0 || pick > 2 || mask > 3) std::abort();
    qm_drive_key unpacked;
    drivekey_unpack(data, unsigned(size), &unpacked);
    put("stats.db", data, half);
    put("stats.bak", data + half, size - half);
    open_and_read();
}

void authenticated_record(const uint8_t* data, size_t size) {
    qm_stats s;
    std::memset(&s, 0, sizeof s);
    std::memcpy(&s, data, size < sizeof s ? size : sizeof s);
    std::vector<uint8_t> file(QM_STATS_FILE_SIZE);
    const qm_drive_key& k = fixed_key();
    statsdb_encode(&s, k.enc_key, k.mac_key, k.drive_id, 1, file.data(), nullptr);
    qm_stats back;
    if (statsdb_decode(file.data(), QM_STATS_FILE_SIZE, k.enc_key, k.mac_key, &back, nullptr, nullptr, nullptr) != 0)
        std::abort();
    if (back.ring_next >= QM_RING_SLOTS || back.ring_used > QM_RING_SLOTS) std::abort();
    put("stats.db", file.data(), file.size());
    put("stats.bak", nullptr, 0);
    open_and_read();
    if (size > 12) statsdb_note_day(&back, data[size - 1] | uint32_t(data[size - 2]) << 8, 1, 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    if (data[0] & 1)
        authenticated_record(data + 1, size - 1);
    else
        raw_bytes(data + 1, size - 1);
    return 0;
}
