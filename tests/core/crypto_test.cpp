// The core's primitives: one or two published vectors each as fixed anchors, then OpenSSL, an
// independent implementation, over seeded random inputs. SHA-256 runs on every path available.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/sha.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "qm_core_internal.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes random_bytes(std::mt19937_64& rng, size_t n) {
    Bytes b(n);
    for (auto& x : b) x = uint8_t(rng());
    return b;
}
Bytes unhex(const std::string& h) {
    Bytes out;
    for (size_t i = 0; i + 1 < h.size(); i += 2) out.push_back(uint8_t(std::stoi(h.substr(i, 2), nullptr, 16)));
    return out;
}
Bytes raw(const uint8_t* p, size_t n) { return Bytes(p, p + n); }

// Runs a test once on each SHA-256 path; the hardware one is skipped where the processor lacks it.
class Sha256Paths : public ::testing::TestWithParam<int> {
protected:
    void SetUp() override {
        if (sha256_select(GetParam()) != 0) GTEST_SKIP() << "no hardware SHA-256 on this machine";
    }
    void TearDown() override { sha256_select(QM_SHA256_AUTO); }
};

TEST_P(Sha256Paths, PublishedVectorsThenStreamingAndHmacAgainstOpenSsl) {
    uint8_t out[32];
    sha256("abc", 3, out);
    EXPECT_EQ(raw(out, 32), unhex("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"));
    hmac_sha256_ctx c;  // RFC 4231 case 2
    hmac_sha256_init(&c, reinterpret_cast<const uint8_t*>("Jefe"), 4);
    hmac_sha256_update(&c, "what do ya want for nothing?", 28);
    hmac_sha256_final(&c, out);
    EXPECT_EQ(raw(out, 32), unhex("5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843"));
    EXPECT_EQ(raw(c.okey, 64), Bytes(64, 0)) << "final wipes the stored outer key";
    std::mt19937_64 rng(2024);
    for (int trial = 0; trial < 3000; ++trial) {
        // Keys of 0 to 200 bytes, either side of the 64-byte block; messages split at random points.
        Bytes key = random_bytes(rng, size_t(trial % 201));
        Bytes msg = random_bytes(rng, rng() % (trial < 2500 ? 300 : 20000));
        uint8_t ours[96], theirs[96];  // one-shot hash, streamed hash, HMAC
        SHA256(msg.data(), msg.size(), theirs);
        SHA256(msg.data(), msg.size(), theirs + 32);
        HMAC(EVP_sha256(), key.data(), int(key.size()), msg.data(), msg.size(), theirs + 64, nullptr);
        sha256(msg.data(), msg.size(), ours);
        sha256_ctx s;
        sha256_init(&s);
        hmac_sha256_init(&c, key.data(), key.size());
        for (size_t pos = 0, take; pos < msg.size(); pos += take) {
            take = std::min<size_t>(msg.size() - pos, rng() % 150);
            sha256_update(&s, msg.data() + pos, take);
            hmac_sha256_update(&c, msg.data() + pos, take);
        }
        sha256_final(&s, ours + 32);
        hmac_sha256_final(&c, ours + 64);
        ASSERT_EQ(raw(ours, 96), raw(theirs, 96)) << "key " << key.size() << ", message " << msg.size();
    }
}

INSTANTIATE_TEST_SUITE_P(Core, Sha256Paths, ::testing::Values(QM_SHA256_PORTABLE, QM_SHA256_HARDWARE),
                         [](const auto& p) { return p.param == QM_SHA256_PORTABLE ? "portable" : "hardware"; });

TEST(Crypto, HelpersThenSha512AndChaCha20PublishedVectorsThenAgainstOpenSsl) {
    uint8_t a[3] = {1, 2, 3}, b[3] = {1, 2, 4};
    EXPECT_EQ(ct_equal(nullptr, nullptr, 0) + ct_equal(a, b, 2), 2);
    EXPECT_EQ(ct_equal(a, b, 3), 0);
    EXPECT_EQ(fnv1a64("foobar", 6), 0x85944171f73967e8ULL);
    EXPECT_EQ(fnv1a64_update(fnv1a64("foo", 3), "bar", 3), fnv1a64("foobar", 6));
    uint8_t out[64], want[64];
    qm_sha512("abc", 3, out);
    EXPECT_EQ(raw(out, 64), unhex("ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a2192992a274fc1a8"
                                  "36ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f"));
    Bytes key = unhex("000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f");  // RFC 8439 2.4.2
    Bytes nonce = unhex("000000000000004a00000000");
    std::string text = "Ladies and Gentlemen of the clas";  // the first block's first half
    chacha20_xor(key.data(), nonce.data(), 1, reinterpret_cast<uint8_t*>(text.data()), text.size());
    EXPECT_EQ(raw(reinterpret_cast<const uint8_t*>(text.data()), 32),
              unhex("6e2e359a2568f98041ba0728dd0d6981e97e7aec1d4360c20a27afccfd9fae0b"));
    std::mt19937_64 rng(8439);
    std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> ctx(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    for (int trial = 0; trial < 2000; ++trial) {
        Bytes data = random_bytes(rng, rng() % 1000), theirs(data.size()), ours = data;
        qm_sha512(data.data(), data.size(), out);
        ASSERT_EQ(raw(out, 64), raw(SHA512(data.data(), data.size(), want), 64)) << data.size();
        key = random_bytes(rng, 32), nonce = random_bytes(rng, 12);
        // Keep the counter from wrapping inside one message: OpenSSL carries into the nonce, the core does not.
        uint32_t counter = uint32_t(rng() % (trial % 2 ? 0xFFFFFF00u : 4u));
        uint8_t iv[16] = {uint8_t(counter), uint8_t(counter >> 8), uint8_t(counter >> 16), uint8_t(counter >> 24)};
        std::copy(nonce.begin(), nonce.end(), iv + 4);
        int out_len = 0;
        ASSERT_EQ(EVP_EncryptInit_ex(ctx.get(), EVP_chacha20(), nullptr, key.data(), iv), 1);
        ASSERT_EQ(EVP_EncryptUpdate(ctx.get(), theirs.data(), &out_len, data.data(), int(data.size())), 1);
        chacha20_xor(key.data(), nonce.data(), counter, ours.data(), ours.size());
        ASSERT_EQ(ours, theirs) << counter << " " << data.size();
    }
}

// RFC 8032 test 1 verifies; no flipped bit of signature or key does, nor S + L (same scalar, not canonical).
TEST(Ed25519, PublishedVectorEveryFlippedBitAndANonCanonicalS) {
    Bytes pub = unhex("d75a980182b10ab7d54bfed3c964073a0ee172f3daa62325af021a68f707511a");
    Bytes sig = unhex("e5564300c360ac729086e2cc806e828a84877f1eb8e5d974d873e065224901555fb8821590a33bacc61e39701cf9b4"
                      "6bd25bf5f0595bbe24655141438e7a100b");
    ASSERT_EQ(qm_ed25519_verify("", 0, sig.data(), pub.data()), 1);
    for (Bytes* part : {&sig, &pub})
        for (size_t bit = 0; bit < part->size() * 8; ++bit) {
            (*part)[bit / 8] ^= uint8_t(1u << (bit % 8));
            ASSERT_EQ(qm_ed25519_verify("", 0, sig.data(), pub.data()), 0) << bit;
            (*part)[bit / 8] ^= uint8_t(1u << (bit % 8));
        }
    EXPECT_EQ(qm_ed25519_verify("x", 1, sig.data(), pub.data()), 0);
    Bytes L = unhex("edd3f55c1a631258d69cf7a2def9de1400000000000000000000000000000010");
    for (unsigned i = 0, carry = 0; i < 32; ++i, carry >>= 8) sig[32 + i] = uint8_t(carry += sig[32 + i] + L[i]);
    EXPECT_EQ(qm_ed25519_verify("", 0, sig.data(), pub.data()), 0);
}

// OpenSSL's signatures verify up to the 256-byte message limit; corrupted ones and longer ones do not.
TEST(Ed25519, OpenSslSignaturesVerifyAndCorruptedOnesDoNot) {
    std::mt19937_64 rng(25519);
    for (int trial = 0; trial <= 257; ++trial) {  // every message length up to one past the limit
        Bytes seed = random_bytes(rng, 32), msg = random_bytes(rng, size_t(trial)), sig(64), pub(32);
        std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(
            EVP_PKEY_new_raw_private_key(EVP_PKEY_ED25519, nullptr, seed.data(), seed.size()), EVP_PKEY_free);
        std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> md(EVP_MD_CTX_new(), EVP_MD_CTX_free);
        size_t pub_len = 32, sig_len = 64;
        ASSERT_EQ(EVP_PKEY_get_raw_public_key(key.get(), pub.data(), &pub_len), 1);
        ASSERT_EQ(EVP_DigestSignInit(md.get(), nullptr, nullptr, nullptr, key.get()), 1);
        ASSERT_EQ(EVP_DigestSign(md.get(), sig.data(), &sig_len, msg.data(), msg.size()), 1);
        ASSERT_EQ(qm_ed25519_verify(msg.data(), msg.size(), sig.data(), pub.data()), int(trial <= 256)) << trial;
        Bytes& part = trial % 2 || msg.empty() ? sig : msg;
        part[rng() % part.size()] ^= uint8_t(1u << (rng() % 8));
        ASSERT_EQ(qm_ed25519_verify(msg.data(), msg.size(), sig.data(), pub.data()), 0) << trial;
    }
}

}  // namespace
