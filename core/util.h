// Internal to the core (and its tests): the small pieces several core files need alike.
#pragma once
#include <climits>
#include <cstddef>
#include <cstdint>

namespace qm::util {

// The longest path the core builds, terminator included: the system's own limit, so any drive
// the system can open has its files reachable. Longer paths are refused, never cut.
constexpr size_t kPathMax = PATH_MAX;

// Zeroes memory in a way the optimiser cannot drop, for keys and decrypted text.
inline void wipe(void* p, size_t n) {
    volatile uint8_t* v = static_cast<volatile uint8_t*>(p);
    while (n--) *v++ = 0;
}

inline uint32_t load32_le(const uint8_t* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

inline void store32_le(uint8_t* p, uint32_t v) {
    p[0] = uint8_t(v);
    p[1] = uint8_t(v >> 8);
    p[2] = uint8_t(v >> 16);
    p[3] = uint8_t(v >> 24);
}

// The lower-case hex digit of the low four bits of v.
inline char hex_digit(unsigned v) { return "0123456789abcdef"[v & 15]; }

// Writes n bytes as 2n lower-case hex digits and a terminating NUL.
inline void to_hex(const uint8_t* p, size_t n, char* out) {
    for (size_t i = 0; i < n; ++i) {
        out[2 * i] = hex_digit(p[i] >> 4);
        out[2 * i + 1] = hex_digit(p[i]);
    }
    out[2 * n] = 0;
}

}  // namespace qm::util
