// The core's own primitives: ChaCha20, SHA-256, HMAC-SHA-256, SHA-512, FNV-1a and
// Ed25519 verification. No allocation; everything lives in caller or stack memory.
#include <atomic>
#include <cstring>

#include "qm_core_internal.h"
#include "sha256_impl.h"
#include "util.h"

namespace {

using qm::util::load32_le;
using qm::util::store32_le;
using qm::util::wipe;

inline void store32_be(uint8_t* p, uint32_t v) {
    p[0] = uint8_t(v >> 24);
    p[1] = uint8_t(v >> 16);
    p[2] = uint8_t(v >> 8);
    p[3] = uint8_t(v);
}
inline uint64_t load64_be(const uint8_t* p) {
    uint64_t v = 0;
    for (int i = 0; i < 8; ++i) v = v << 8 | p[i];
    return v;
}
inline void store64_be(uint8_t* p, uint64_t v) {
    for (int i = 7; i >= 0; --i) {
        p[i] = uint8_t(v);
        v >>= 8;
    }
}
inline uint32_t rotl32(uint32_t x, int n) { return x << n | x >> (32 - n); }
inline uint64_t rotr64(uint64_t x, int n) { return x >> n | x << (64 - n); }

}  // namespace

// ---- ChaCha20 -------------------------------------------------------------

static void chacha20_block(const uint32_t in[16], uint8_t out[64]) {
    uint32_t x[16];
    std::memcpy(x, in, sizeof x);
#define QR(a, b, c, d)                                   \
    x[a] += x[b], x[d] = rotl32(x[d] ^ x[a], 16);        \
    x[c] += x[d], x[b] = rotl32(x[b] ^ x[c], 12);        \
    x[a] += x[b], x[d] = rotl32(x[d] ^ x[a], 8);         \
    x[c] += x[d], x[b] = rotl32(x[b] ^ x[c], 7)
    for (int i = 0; i < 10; ++i) {
        QR(0, 4, 8, 12);
        QR(1, 5, 9, 13);
        QR(2, 6, 10, 14);
        QR(3, 7, 11, 15);
        QR(0, 5, 10, 15);
        QR(1, 6, 11, 12);
        QR(2, 7, 8, 13);
        QR(3, 4, 9, 14);
    }
#undef QR
    for (int i = 0; i < 16; ++i) store32_le(out + 4 * i, x[i] + in[i]);
    wipe(x, sizeof x);
}

extern "C" void chacha20_xor(const uint8_t key[32], const uint8_t nonce[12], uint32_t counter, uint8_t* buf,
                             size_t len) {
    uint32_t st[16] = {0x61707865, 0x3320646e, 0x79622d32, 0x6b206574};
    for (int i = 0; i < 8; ++i) st[4 + i] = load32_le(key + 4 * i);
    st[12] = counter;
    for (int i = 0; i < 3; ++i) st[13 + i] = load32_le(nonce + 4 * i);
    uint8_t ks[64];
    while (len > 0) {
        chacha20_block(st, ks);
        size_t n = len < 64 ? len : 64;
        for (size_t i = 0; i < n; ++i) buf[i] ^= ks[i];
        buf += n;
        len -= n;
        ++st[12];
    }
    wipe(ks, sizeof ks);
    wipe(st, sizeof st);
}

// ---- SHA-256 --------------------------------------------------------------

namespace qm::sha256_detail {

const uint32_t K[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

void blocks_portable(uint32_t s[8], const uint8_t* p, size_t nblocks) {
    auto rotr = [](uint32_t x, int n) { return x >> n | x << (32 - n); };
    for (; nblocks--; p += 64) {
        uint32_t w[64];
        for (int i = 0; i < 16; ++i)
            w[i] = uint32_t(p[4 * i]) << 24 | uint32_t(p[4 * i + 1]) << 16 | uint32_t(p[4 * i + 2]) << 8 | p[4 * i + 3];
        for (int i = 16; i < 64; ++i) {
            uint32_t s0 = rotr(w[i - 15], 7) ^ rotr(w[i - 15], 18) ^ (w[i - 15] >> 3);
            uint32_t s1 = rotr(w[i - 2], 17) ^ rotr(w[i - 2], 19) ^ (w[i - 2] >> 10);
            w[i] = w[i - 16] + s0 + w[i - 7] + s1;
        }
        uint32_t a = s[0], b = s[1], c = s[2], d = s[3], e = s[4], f = s[5], g = s[6], h = s[7];
        for (int i = 0; i < 64; ++i) {
            uint32_t t1 = h + (rotr(e, 6) ^ rotr(e, 11) ^ rotr(e, 25)) + ((e & f) ^ (~e & g)) + K[i] + w[i];
            uint32_t t2 = (rotr(a, 2) ^ rotr(a, 13) ^ rotr(a, 22)) + ((a & b) ^ (a & c) ^ (b & c));
            h = g, g = f, f = e, e = d + t1, d = c, c = b, b = a, a = t1 + t2;
        }
        s[0] += a, s[1] += b, s[2] += c, s[3] += d, s[4] += e, s[5] += f, s[6] += g, s[7] += h;
    }
}

}  // namespace qm::sha256_detail

namespace {
using qm::sha256_detail::BlockFn;

struct BlockPath {
    BlockFn blocks;
    const char* name;
};

const BlockPath kPortable = {qm::sha256_detail::blocks_portable, "portable"};

// The processor's path, discovered once (a function-local static is initialised exactly once).
const BlockPath* hardware_path() {
    static const BlockPath hw = {qm::sha256_detail::hardware_blocks(), qm::sha256_detail::hardware_name()};
    return hw.blocks ? &hw : nullptr;
}

const BlockPath* automatic_path() {
    const BlockPath* hw = hardware_path();
    return hw ? hw : &kPortable;
}

// One pointer, so the function and its name always change together; threads that hash while
// another selects see either path whole.
std::atomic<const BlockPath*> g_path{nullptr};

const BlockPath* active_path() {
    const BlockPath* p = g_path.load(std::memory_order_acquire);
    if (p) return p;
    const BlockPath* chosen = automatic_path();
    return g_path.compare_exchange_strong(p, chosen, std::memory_order_acq_rel) ? chosen : p;
}
}  // namespace

extern "C" int sha256_select(int impl) {
    const BlockPath* p = impl == QM_SHA256_AUTO       ? automatic_path()
                         : impl == QM_SHA256_PORTABLE ? &kPortable
                         : impl == QM_SHA256_HARDWARE ? hardware_path()
                                                      : nullptr;
    if (!p) return SHA256_EUNAVAILABLE;
    g_path.store(p, std::memory_order_release);
    return 0;
}

extern "C" const char* sha256_impl_name(void) { return active_path()->name; }

extern "C" void sha256_init(sha256_ctx* ctx) {
    static const uint32_t iv[8] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                   0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
    std::memcpy(ctx->state, iv, sizeof iv);
    ctx->count = 0;
}

extern "C" void sha256_update(sha256_ctx* ctx, const void* data, size_t len) {
    if (len == 0) return;
    const uint8_t* p = static_cast<const uint8_t*>(data);
    BlockFn blocks = active_path()->blocks;
    size_t used = ctx->count & 63;
    ctx->count += len;
    if (used) {
        size_t take = 64 - used < len ? 64 - used : len;
        std::memcpy(ctx->buf + used, p, take);
        p += take;
        len -= take;
        if (used + take < 64) return;
        blocks(ctx->state, ctx->buf, 1);
    }
    if (len >= 64) {
        blocks(ctx->state, p, len / 64);
        p += len & ~size_t(63);
        len &= 63;
    }
    if (len) std::memcpy(ctx->buf, p, len);
}

extern "C" void sha256_final(sha256_ctx* ctx, uint8_t out[32]) {
    uint64_t bits = ctx->count * 8;
    size_t used = ctx->count & 63;
    BlockFn blocks = active_path()->blocks;
    ctx->buf[used++] = 0x80;
    if (used > 56) {
        std::memset(ctx->buf + used, 0, 64 - used);
        blocks(ctx->state, ctx->buf, 1);
        used = 0;
    }
    std::memset(ctx->buf + used, 0, 56 - used);
    store64_be(ctx->buf + 56, bits);
    blocks(ctx->state, ctx->buf, 1);
    for (int i = 0; i < 8; ++i) store32_be(out + 4 * i, ctx->state[i]);
    wipe(ctx, sizeof *ctx);
}

// The app's names for the same streaming hash.
extern "C" void qm_sha256_init(qm_sha256_ctx* ctx) { sha256_init(ctx); }
extern "C" void qm_sha256_update(qm_sha256_ctx* ctx, const void* data, size_t len) { sha256_update(ctx, data, len); }
extern "C" void qm_sha256_final(qm_sha256_ctx* ctx, uint8_t out[32]) { sha256_final(ctx, out); }

extern "C" void sha256(const void* data, size_t len, uint8_t out[32]) {
    sha256_ctx c;
    sha256_init(&c);
    sha256_update(&c, data, len);
    sha256_final(&c, out);
}

// ---- HMAC-SHA-256 -----------------------------------------------------------

extern "C" void hmac_sha256_init(hmac_sha256_ctx* ctx, const uint8_t* key, size_t key_len) {
    uint8_t k[64] = {0};
    if (key_len > 64)
        sha256(key, key_len, k);
    else if (key_len)
        std::memcpy(k, key, key_len);
    uint8_t ipad[64];
    for (int i = 0; i < 64; ++i) {
        ipad[i] = k[i] ^ 0x36;
        ctx->okey[i] = k[i] ^ 0x5c;
    }
    sha256_init(&ctx->inner);
    sha256_update(&ctx->inner, ipad, 64);
    wipe(k, sizeof k);
    wipe(ipad, sizeof ipad);
}

extern "C" void hmac_sha256_update(hmac_sha256_ctx* ctx, const void* data, size_t len) {
    sha256_update(&ctx->inner, data, len);
}

extern "C" void hmac_sha256_final(hmac_sha256_ctx* ctx, uint8_t out[32]) {
    uint8_t ih[32];
    sha256_final(&ctx->inner, ih);
    sha256_ctx outer;
    sha256_init(&outer);
    sha256_update(&outer, ctx->okey, 64);
    sha256_update(&outer, ih, 32);
    sha256_final(&outer, out);
    wipe(ctx->okey, sizeof ctx->okey);
    wipe(ih, sizeof ih);
}

// ---- Small helpers ------------------------------------------------------------

extern "C" int ct_equal(const uint8_t* a, const uint8_t* b, size_t n) {
    uint8_t d = 0;
    for (size_t i = 0; i < n; ++i) d |= a[i] ^ b[i];
    return d == 0;
}

extern "C" uint64_t fnv1a64_update(uint64_t h, const void* data, size_t len) {
    const uint8_t* p = static_cast<const uint8_t*>(data);
    for (size_t i = 0; i < len; ++i) h = (h ^ p[i]) * 0x100000001b3ULL;
    return h;
}

extern "C" uint64_t fnv1a64(const void* data, size_t len) { return fnv1a64_update(0xcbf29ce484222325ULL, data, len); }

// ---- SHA-512 ------------------------------------------------------------------

static const uint64_t K512[80] = {
    0x428a2f98d728ae22ULL, 0x7137449123ef65cdULL, 0xb5c0fbcfec4d3b2fULL, 0xe9b5dba58189dbbcULL, 0x3956c25bf348b538ULL,
    0x59f111f1b605d019ULL, 0x923f82a4af194f9bULL, 0xab1c5ed5da6d8118ULL, 0xd807aa98a3030242ULL, 0x12835b0145706fbeULL,
    0x243185be4ee4b28cULL, 0x550c7dc3d5ffb4e2ULL, 0x72be5d74f27b896fULL, 0x80deb1fe3b1696b1ULL, 0x9bdc06a725c71235ULL,
    0xc19bf174cf692694ULL, 0xe49b69c19ef14ad2ULL, 0xefbe4786384f25e3ULL, 0x0fc19dc68b8cd5b5ULL, 0x240ca1cc77ac9c65ULL,
    0x2de92c6f592b0275ULL, 0x4a7484aa6ea6e483ULL, 0x5cb0a9dcbd41fbd4ULL, 0x76f988da831153b5ULL, 0x983e5152ee66dfabULL,
    0xa831c66d2db43210ULL, 0xb00327c898fb213fULL, 0xbf597fc7beef0ee4ULL, 0xc6e00bf33da88fc2ULL, 0xd5a79147930aa725ULL,
    0x06ca6351e003826fULL, 0x142929670a0e6e70ULL, 0x27b70a8546d22ffcULL, 0x2e1b21385c26c926ULL, 0x4d2c6dfc5ac42aedULL,
    0x53380d139d95b3dfULL, 0x650a73548baf63deULL, 0x766a0abb3c77b2a8ULL, 0x81c2c92e47edaee6ULL, 0x92722c851482353bULL,
    0xa2bfe8a14cf10364ULL, 0xa81a664bbc423001ULL, 0xc24b8b70d0f89791ULL, 0xc76c51a30654be30ULL, 0xd192e819d6ef5218ULL,
    0xd69906245565a910ULL, 0xf40e35855771202aULL, 0x106aa07032bbd1b8ULL, 0x19a4c116b8d2d0c8ULL, 0x1e376c085141ab53ULL,
    0x2748774cdf8eeb99ULL, 0x34b0bcb5e19b48a8ULL, 0x391c0cb3c5c95a63ULL, 0x4ed8aa4ae3418acbULL, 0x5b9cca4f7763e373ULL,
    0x682e6ff3d6b2b8a3ULL, 0x748f82ee5defb2fcULL, 0x78a5636f43172f60ULL, 0x84c87814a1f0ab72ULL, 0x8cc702081a6439ecULL,
    0x90befffa23631e28ULL, 0xa4506cebde82bde9ULL, 0xbef9a3f7b2c67915ULL, 0xc67178f2e372532bULL, 0xca273eceea26619cULL,
    0xd186b8c721c0c207ULL, 0xeada7dd6cde0eb1eULL, 0xf57d4f7fee6ed178ULL, 0x06f067aa72176fbaULL, 0x0a637dc5a2c898a6ULL,
    0x113f9804bef90daeULL, 0x1b710b35131c471bULL, 0x28db77f523047d84ULL, 0x32caab7b40c72493ULL, 0x3c9ebe0a15c9bebcULL,
    0x431d67c49c100d4cULL, 0x4cc5d4becb3e42b6ULL, 0x597f299cfc657e2aULL, 0x5fcb6fab3ad6faecULL, 0x6c44198c4a475817ULL};

extern "C" void sha512_block(uint64_t s[8], const uint8_t block[128]) {
    uint64_t w[80];
    for (int i = 0; i < 16; ++i) w[i] = load64_be(block + 8 * i);
    for (int i = 16; i < 80; ++i) {
        uint64_t s0 = rotr64(w[i - 15], 1) ^ rotr64(w[i - 15], 8) ^ (w[i - 15] >> 7);
        uint64_t s1 = rotr64(w[i - 2], 19) ^ rotr64(w[i - 2], 61) ^ (w[i - 2] >> 6);
        w[i] = w[i - 16] + s0 + w[i - 7] + s1;
    }
    uint64_t a = s[0], b = s[1], c = s[2], d = s[3], e = s[4], f = s[5], g = s[6], h = s[7];
    for (int i = 0; i < 80; ++i) {
        uint64_t t1 = h + (rotr64(e, 14) ^ rotr64(e, 18) ^ rotr64(e, 41)) + ((e & f) ^ (~e & g)) + K512[i] + w[i];
        uint64_t t2 = (rotr64(a, 28) ^ rotr64(a, 34) ^ rotr64(a, 39)) + ((a & b) ^ (a & c) ^ (b & c));
        h = g, g = f, f = e, e = d + t1, d = c, c = b, b = a, a = t1 + t2;
    }
    s[0] += a, s[1] += b, s[2] += c, s[3] += d, s[4] += e, s[5] += f, s[6] += g, s[7] += h;
}

extern "C" void qm_sha512(const void* data, size_t len, uint8_t out[64]) {
    uint64_t s[8] = {0x6a09e667f3bcc908ULL, 0xbb67ae8584caa73bULL, 0x3c6ef372fe94f82bULL, 0xa54ff53a5f1d36f1ULL,
                     0x510e527fade682d1ULL, 0x9b05688c2b3e6c1fULL, 0x1f83d9abfb41bd6bULL, 0x5be0cd19137e2179ULL};
    const uint8_t* p = static_cast<const uint8_t*>(data);
    size_t n = len;
    for (; n >= 128; n -= 128, p += 128) sha512_block(s, p);
    uint8_t last[256] = {0};
    if (n) std::memcpy(last, p, n);
    last[n] = 0x80;
    size_t total = n + 1 + 16 <= 128 ? 128 : 256;
    // Bit length as a 128-bit big-endian number; the high 64 bits hold len >> 61.
    store64_be(last + total - 16, uint64_t(len) >> 61);
    store64_be(last + total - 8, uint64_t(len) << 3);
    sha512_block(s, last);
    if (total == 256) sha512_block(s, last + 128);
    for (int i = 0; i < 8; ++i) store64_be(out + 8 * i, s[i]);
}

// ---- Ed25519 verification --------------------------------------------------------
// Field elements are sixteen 16-bit limbs held in 64-bit integers (radix 2^16).

namespace {

typedef int64_t gf[16];

const gf gf0 = {0};
const gf gf1 = {1};
const gf D = {0x78a3, 0x1359, 0x4dca, 0x75eb, 0xd8ab, 0x4141, 0x0a4d, 0x0070,
              0xe898, 0x7779, 0x4079, 0x8cc7, 0xfe73, 0x2b6f, 0x6cee, 0x5203};
const gf D2 = {0xf159, 0x26b2, 0x9b94, 0xebd6, 0xb156, 0x8283, 0x149a, 0x00e0,
               0xd130, 0xeef3, 0x80f2, 0x198e, 0xfce7, 0x56df, 0xd9dc, 0x2406};
const gf X = {0xd51a, 0x8f25, 0x2d60, 0xc956, 0xa7b2, 0x9525, 0xc760, 0x692c,
              0xdc5c, 0xfdd6, 0xe231, 0xc0a4, 0x53fe, 0xcd6e, 0x36d3, 0x2169};
const gf Y = {0x6658, 0x6666, 0x6666, 0x6666, 0x6666, 0x6666, 0x6666, 0x6666,
              0x6666, 0x6666, 0x6666, 0x6666, 0x6666, 0x6666, 0x6666, 0x6666};
const gf I = {0xa0b0, 0x4a0e, 0x1b27, 0xc4ee, 0xe478, 0xad2f, 0x1806, 0x2f43,
              0xd7a7, 0x3dfb, 0x0099, 0x2b4d, 0xdf0b, 0x4fc1, 0x2480, 0x2b83};

void set25519(gf r, const gf a) { std::memcpy(r, a, sizeof(gf)); }

void car25519(gf o) {
    for (int i = 0; i < 16; ++i) {
        o[i] += (int64_t(1) << 16);
        int64_t c = o[i] >> 16;
        o[(i + 1) * (i < 15)] += c - 1 + 37 * (c - 1) * (i == 15);
        o[i] -= c * (int64_t(1) << 16);
    }
}

void sel25519(gf p, gf q, int b) {
    int64_t c = ~(int64_t(b) - 1);
    for (int i = 0; i < 16; ++i) {
        int64_t t = c & (p[i] ^ q[i]);
        p[i] ^= t;
        q[i] ^= t;
    }
}

void pack25519(uint8_t* o, const gf n) {
    gf m, t;
    set25519(t, n);
    car25519(t);
    car25519(t);
    car25519(t);
    for (int j = 0; j < 2; ++j) {
        m[0] = t[0] - 0xffed;
        for (int i = 1; i < 15; ++i) {
            m[i] = t[i] - 0xffff - ((m[i - 1] >> 16) & 1);
            m[i - 1] &= 0xffff;
        }
        m[15] = t[15] - 0x7fff - ((m[14] >> 16) & 1);
        int b = int((m[15] >> 16) & 1);
        m[14] &= 0xffff;
        sel25519(t, m, 1 - b);
    }
    for (int i = 0; i < 16; ++i) {
        o[2 * i] = uint8_t(t[i] & 0xff);
        o[2 * i + 1] = uint8_t(t[i] >> 8);
    }
}

int neq25519(const gf a, const gf b) {
    uint8_t c[32], d[32];
    pack25519(c, a);
    pack25519(d, b);
    return !ct_equal(c, d, 32);
}

uint8_t par25519(const gf a) {
    uint8_t d[32];
    pack25519(d, a);
    return d[0] & 1;
}

void unpack25519(gf o, const uint8_t* n) {
    for (int i = 0; i < 16; ++i) o[i] = n[2 * i] + (int64_t(n[2 * i + 1]) << 8);
    o[15] &= 0x7fff;
}

void A(gf o, const gf a, const gf b) {
    for (int i = 0; i < 16; ++i) o[i] = a[i] + b[i];
}
void Z(gf o, const gf a, const gf b) {
    for (int i = 0; i < 16; ++i) o[i] = a[i] - b[i];
}
void M(gf o, const gf a, const gf b) {
    int64_t t[31] = {0};
    for (int i = 0; i < 16; ++i)
        for (int j = 0; j < 16; ++j) t[i + j] += a[i] * b[j];
    for (int i = 0; i < 15; ++i) t[i] += 38 * t[i + 16];
    for (int i = 0; i < 16; ++i) o[i] = t[i];
    car25519(o);
    car25519(o);
}
void S(gf o, const gf a) { M(o, a, a); }

void pow2523(gf o, const gf i) {
    gf c;
    set25519(c, i);
    for (int a = 250; a >= 0; --a) {
        S(c, c);
        if (a != 1) M(c, c, i);
    }
    set25519(o, c);
}

void add(gf p[4], gf q[4]) {
    gf a, b, c, d, t, e, f, g, h;
    Z(a, p[1], p[0]);
    Z(t, q[1], q[0]);
    M(a, a, t);
    A(b, p[0], p[1]);
    A(t, q[0], q[1]);
    M(b, b, t);
    M(c, p[3], q[3]);
    M(c, c, D2);
    M(d, p[2], q[2]);
    A(d, d, d);
    Z(e, b, a);
    Z(f, d, c);
    A(g, d, c);
    A(h, b, a);
    M(p[0], e, f);
    M(p[1], h, g);
    M(p[2], g, f);
    M(p[3], e, h);
}

void cswap(gf p[4], gf q[4], uint8_t b) {
    for (int i = 0; i < 4; ++i) sel25519(p[i], q[i], b);
}

void pack_point(uint8_t* r, gf p[4]) {
    gf tx, ty, zi;
    // zi = 1/z by Fermat: z^(p-2).
    gf c;
    set25519(c, p[2]);
    for (int a = 253; a >= 0; --a) {
        S(c, c);
        if (a != 2 && a != 4) M(c, c, p[2]);
    }
    set25519(zi, c);
    M(tx, p[0], zi);
    M(ty, p[1], zi);
    pack25519(r, ty);
    r[31] ^= uint8_t(par25519(tx) << 7);
}

void scalarmult(gf p[4], gf q[4], const uint8_t* s) {
    set25519(p[0], gf0);
    set25519(p[1], gf1);
    set25519(p[2], gf1);
    set25519(p[3], gf0);
    for (int i = 255; i >= 0; --i) {
        uint8_t b = (s[i / 8] >> (i & 7)) & 1;
        cswap(p, q, b);
        add(q, p);
        add(p, p);
        cswap(p, q, b);
    }
}

void scalarbase(gf p[4], const uint8_t* s) {
    gf q[4];
    set25519(q[0], X);
    set25519(q[1], Y);
    set25519(q[2], gf1);
    M(q[3], X, Y);
    scalarmult(p, q, s);
}

const uint64_t L[32] = {0xed, 0xd3, 0xf5, 0x5c, 0x1a, 0x63, 0x12, 0x58, 0xd6, 0x9c, 0xf7,
                        0xa2, 0xde, 0xf9, 0xde, 0x14, 0,    0,    0,    0,    0,    0,
                        0,    0,    0,    0,    0,    0,    0,    0,    0,    0x10};

void modL(uint8_t* r, int64_t x[64]) {
    int64_t carry;
    for (int i = 63; i >= 32; --i) {
        carry = 0;
        int j;
        for (j = i - 32; j < i - 12; ++j) {
            x[j] += carry - 16 * x[i] * int64_t(L[j - (i - 32)]);
            carry = (x[j] + 128) >> 8;
            x[j] -= carry * 256;
        }
        x[j] += carry;
        x[i] = 0;
    }
    carry = 0;
    for (int j = 0; j < 32; ++j) {
        x[j] += carry - (x[31] >> 4) * int64_t(L[j]);
        carry = x[j] >> 8;
        x[j] &= 255;
    }
    for (int j = 0; j < 32; ++j) x[j] -= carry * int64_t(L[j]);
    for (int i = 0; i < 32; ++i) {
        x[i + 1] += x[i] >> 8;
        r[i] = uint8_t(x[i] & 255);
    }
}

void reduce(uint8_t* r) {
    int64_t x[64];
    for (int i = 0; i < 64; ++i) x[i] = uint64_t(r[i]);
    for (int i = 0; i < 64; ++i) r[i] = 0;
    modL(r, x);
}

// Decodes a public key into -A (negated, ready for the check). Returns 0 or -1.
int unpackneg(gf r[4], const uint8_t p[32]) {
    gf t, chk, num, den, den2, den4, den6;
    set25519(r[2], gf1);
    unpack25519(r[1], p);
    S(num, r[1]);
    M(den, num, D);
    Z(num, num, r[2]);
    A(den, r[2], den);
    S(den2, den);
    S(den4, den2);
    M(den6, den4, den2);
    M(t, den6, num);
    M(t, t, den);
    pow2523(t, t);
    M(t, t, num);
    M(t, t, den);
    M(t, t, den);
    M(r[0], t, den);
    S(chk, r[0]);
    M(chk, chk, den);
    if (neq25519(chk, num)) M(r[0], r[0], I);
    S(chk, r[0]);
    M(chk, chk, den);
    if (neq25519(chk, num)) return -1;
    if (par25519(r[0]) == (p[31] >> 7)) Z(r[0], gf0, r[0]);
    M(r[3], r[0], r[1]);
    return 0;
}

// S must be below the group order L, as RFC 8032 requires; this refuses malleated signatures.
bool scalar_is_canonical(const uint8_t s[32]) {
    for (int i = 31; i >= 0; --i) {
        if (s[i] < L[i]) return true;
        if (s[i] > L[i]) return false;
    }
    return false;
}

}  // namespace

extern "C" int qm_ed25519_verify(const void* msg, size_t msg_len, const uint8_t sig[64], const uint8_t pub[32]) {
    if (!sig || !pub || (!msg && msg_len)) return 0;
    if (msg_len > QM_ED25519_MAX_MESSAGE) return 0;
    if (!scalar_is_canonical(sig + 32)) return 0;
    gf p[4], q[4];
    if (unpackneg(q, pub)) return 0;
    uint8_t buf[64 + QM_ED25519_MAX_MESSAGE];
    std::memcpy(buf, sig, 32);
    std::memcpy(buf + 32, pub, 32);
    if (msg_len) std::memcpy(buf + 64, msg, msg_len);
    uint8_t h[64];
    qm_sha512(buf, 64 + msg_len, h);
    reduce(h);
    scalarmult(p, q, h);
    scalarbase(q, sig + 32);
    add(p, q);
    uint8_t t[32];
    pack_point(t, p);
    return ct_equal(t, sig, 32);
}
