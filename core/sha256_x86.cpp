// SHA-256 with the x86 SHA extensions (SHA-NI), chosen at run time.
#include <cpuid.h>
#include <immintrin.h>

#include "sha256_impl.h"

namespace qm::sha256_detail {
namespace {

__attribute__((target("sha,sse4.1"))) void blocks_shani(uint32_t state[8], const uint8_t* p, size_t nblocks) {
    const __m128i shuf = _mm_set_epi64x(0x0c0d0e0f08090a0bULL, 0x0405060700010203ULL);
    // State words are reordered into the ABEF/CDGH layout the instructions use.
    __m128i tmp = _mm_loadu_si128(reinterpret_cast<const __m128i*>(&state[0]));
    __m128i s1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(&state[4]));
    tmp = _mm_shuffle_epi32(tmp, 0xB1);
    s1 = _mm_shuffle_epi32(s1, 0x1B);
    __m128i s0 = _mm_alignr_epi8(tmp, s1, 8);
    s1 = _mm_blend_epi16(s1, tmp, 0xF0);

    for (; nblocks--; p += 64) {
        const __m128i abef = s0, cdgh = s1;
        __m128i m[4];
        for (int i = 0; i < 4; ++i)
            m[i] = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16 * i)), shuf);
#pragma GCC unroll 16
        for (int r = 0; r < 16; ++r) {
            __m128i& w = m[r & 3];
            if (r >= 4) {
                // w[r] = sigma1(w[r-1]) + w[r-3 words] + sigma0(...) + w[r-4]; computed four words at a time.
                __m128i t = _mm_sha256msg1_epu32(w, m[(r + 1) & 3]);
                t = _mm_add_epi32(t, _mm_alignr_epi8(m[(r + 3) & 3], m[(r + 2) & 3], 4));
                w = _mm_sha256msg2_epu32(t, m[(r + 3) & 3]);
            }
            __m128i k = _mm_loadu_si128(reinterpret_cast<const __m128i*>(&K[4 * r]));
            __m128i msg = _mm_add_epi32(w, k);
            s1 = _mm_sha256rnds2_epu32(s1, s0, msg);
            msg = _mm_shuffle_epi32(msg, 0x0E);
            s0 = _mm_sha256rnds2_epu32(s0, s1, msg);
        }
        s0 = _mm_add_epi32(s0, abef);
        s1 = _mm_add_epi32(s1, cdgh);
    }

    tmp = _mm_shuffle_epi32(s0, 0x1B);
    s1 = _mm_shuffle_epi32(s1, 0xB1);
    s0 = _mm_blend_epi16(tmp, s1, 0xF0);
    s1 = _mm_alignr_epi8(s1, tmp, 8);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(&state[0]), s0);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(&state[4]), s1);
}

bool cpu_has_sha() {
    unsigned a, b, c, d;
    if (!__get_cpuid(1, &a, &b, &c, &d)) return false;
    bool sse41 = c & bit_SSE4_1, ssse3 = c & bit_SSSE3;
    if (__get_cpuid_max(0, nullptr) < 7) return false;
    __cpuid_count(7, 0, a, b, c, d);
    return sse41 && ssse3 && (b & bit_SHA);
}

}  // namespace

BlockFn hardware_blocks() {
    static const bool has = cpu_has_sha();
    return has ? blocks_shani : nullptr;
}

const char* hardware_name() { return "x86-64 SHA-NI"; }

}  // namespace qm::sha256_detail
