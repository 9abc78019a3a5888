// Statistics files and key files from a drive, as arbitrary bytes. The first input byte picks
// the mode:
//   even: a drive's files: 120 bytes of key file, stats.db's length (2 bytes, little-endian),
//         stats.db, and stats.bak as the rest; also fed to the decoder, the picker and the key
//         unpacking directly. A drive the deck made, packed so, authenticates whole.
//   odd:  a plaintext record encoded under a fixed key, so the fuzzer reaches the record
//         handling behind the MAC (odd ring indices, duplicate days, days near 2^32).
// Every drive that opens is exported and has its days turned into dates.
#include <sys/stat.h>

#include <cstring>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "qm_core_internal.h"

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
    static const std::string dir = [] {
        std::string made = fuzz_folder("stats");
        mkdir((made + "/.qm").c_str(), 0700);
        return made;
    }();
    return dir;
}

void put(const std::string& name, const uint8_t* data, size_t len) { put_file(drive_dir() + "/" + name, data, len); }

// A day's date, checked to be a real one (day 0 has none).
uint64_t date_key(uint32_t day) {
    unsigned y = 1, m = 1, d = 1;
    qm_day_to_ymd(day, &y, &m, &d);
    check(day == 0 ? (y | m | d) == 0 : (y >= 1980 && m >= 1 && m <= 12 && d >= 1 && d <= 31));
    return (uint64_t(y) * 13 + m) * 32 + d;
}

// Opens the drive and reads everything the application reads; checks what must always hold.
void open_and_read() {
    int err = 1;
    qm_drive* h = qm_open(drive_dir().c_str(), &err);
    if (!h) {
        check(err < 0 && std::strcmp(qm_strerror(err), "unknown error") != 0);
        return;
    }
    qm_summary s;
    static qm_day days[QM_RING_SLOTS];
    check(qm_summary_get(h, &s) == 0 && s.n_days <= QM_RING_SLOTS);
    date_key(s.first_day);
    date_key(s.last_day);
    const int n = qm_days_get(h, days, QM_RING_SLOTS);
    for (int i = 0; i < n; ++i) {  // days in order, and their dates in the same order
        const uint64_t key = date_key(days[i].day), prev = i ? date_key(days[i - 1].day) : 0;
        check(days[i].day != 0 && (i == 0 || days[i - 1].day <= days[i].day));
        check(i == 0 || (days[i - 1].day < days[i].day) == (prev < key));
    }
    const int len = qm_export_json(h, nullptr, 0);
    check(len > 0);
    std::vector<char> json(size_t(len) + 1);
    check(qm_export_json(h, json.data(), len + 1) == len && std::strlen(json.data()) == size_t(len));
    check(json[0] == '{' && json[size_t(len) - 1] == '}');
    qm_close(h);
}

void drive_files(const uint8_t* data, size_t size) {
    const size_t key_len = size < QM_KEY_FILE_SIZE ? size : QM_KEY_FILE_SIZE;
    put(".qm/drive.key", data, key_len);
    qm_drive_key key = fixed_key();
    drivekey_unpack(data, unsigned(key_len), &key);  // a key that does not unpack leaves the fixed one
    const uint8_t* p = data + key_len;
    size_t rest = size - key_len, db_len = 0;
    if (rest >= 2) {
        db_len = size_t(p[0] | p[1] << 8);
        p += 2, rest -= 2;
        if (db_len > rest) db_len = rest;
    }
    qm_stats out;
    statsdb_decode(p, unsigned(db_len), key.enc_key, key.mac_key, &out, nullptr, nullptr, nullptr);
    unsigned mask = 0;
    int pick = statsdb_pick(p, unsigned(db_len), p + db_len, unsigned(rest - db_len), key.enc_key, key.mac_key, &out,
                            nullptr, nullptr, &mask);
    check(pick >= 0 && pick <= 2 && mask <= 3);
    put("stats.db", p, db_len);
    put("stats.bak", p + db_len, rest - db_len);
    open_and_read();
}

void authenticated_record(const uint8_t* data, size_t size) {
    static qm_stats s, back;
    std::memset(&s, 0, sizeof s);
    std::memcpy(&s, data, size < sizeof s ? size : sizeof s);
    std::vector<uint8_t> file(QM_STATS_FILE_SIZE);
    const qm_drive_key& k = fixed_key();
    statsdb_encode(&s, k.enc_key, k.mac_key, k.drive_id, 1, file.data(), nullptr);
    check(statsdb_decode(file.data(), QM_STATS_FILE_SIZE, k.enc_key, k.mac_key, &back, nullptr, nullptr, nullptr) == 0);
    check(back.ring_next < QM_RING_SLOTS && back.ring_used <= QM_RING_SLOTS);
    uint8_t packed[QM_KEY_FILE_SIZE];
    drivekey_pack(&k, packed);
    put(".qm/drive.key", packed, sizeof packed);
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
        drive_files(data + 1, size - 1);
    return 0;
}
