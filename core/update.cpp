// The signed update message, its Ed25519 check and the ordering of version strings.
#include <cstring>

#include "qm_core_internal.h"

namespace {

// Every byte must leave room for the final NUL.
int put_byte(char* out, int cap, int* pos, char c) {
    if (*pos >= cap - 1) return QM_ESMALL;
    out[(*pos)++] = c;
    return QM_OK;
}

int put_line(char* out, int cap, int* pos, const char* s) {
    for (; *s; ++s)
        if (put_byte(out, cap, pos, *s) != QM_OK) return QM_ESMALL;
    return put_byte(out, cap, pos, '\n');
}

int u_append_i64(char* out, int cap, int* pos, int64_t v) {
    if (v < 0) return QM_EARG;
    char digits[20];
    int n = 0;
    uint64_t u = uint64_t(v);
    do {
        digits[n++] = char('0' + u % 10);
        u /= 10;
    } while (u != 0);
    while (n > 0)
        if (put_byte(out, cap, pos, digits[--n]) != QM_OK) return QM_ESMALL;
    return QM_OK;
}

// One numeric component; a non-digit reads as 0 and does not advance.
int64_t read_component(const char** p) {
    uint64_t v = 0;
    while (**p >= '0' && **p <= '9') v = v * 10 + uint64_t(*(*p)++ - '0');
    return int64_t(v);
}

}  // namespace

extern "C" int qm_update_message(const char* platform, const char* channel, const char* version,
                                 const char* sha256, int64_t size, char* out, int cap) {
    if (!platform || !channel || !version || !sha256 || !out || cap < 2) return QM_EARG;
    if (size < 0) return QM_EARG;
    int pos = 0;
    const char* lines[] = {"qm-update-v1", platform, channel, version, sha256};
    for (const char* line : lines)
        if (put_line(out, cap, &pos, line) != QM_OK) return QM_ESMALL;
    int rc = u_append_i64(out, cap, &pos, size);
    if (rc != QM_OK) return rc;
    if (put_byte(out, cap, &pos, '\n') != QM_OK) return QM_ESMALL;
    out[pos] = 0;
    return QM_OK;
}

extern "C" int qm_update_verify(const char* message, const uint8_t sig[64], const uint8_t pub[32]) {
    if (!message || !sig || !pub) return 0;
    return qm_ed25519_verify(message, std::strlen(message), sig, pub);
}

extern "C" int qm_version_compare(const char* a, const char* b) {
    if (!a) a = "";
    if (!b) b = "";
    for (int component = 0; component < 3; ++component) {
        int64_t x = read_component(&a), y = read_component(&b);
        if (x != y) return x > y ? 1 : -1;
        if (*a == '.') ++a;
        if (*b == '.') ++b;
    }
    return 0;
}
