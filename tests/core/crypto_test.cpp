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

#include "qm_core.h"
#include "sha256_paths.h"

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
std::string hex(const uint8_t* p, size_t n) {
    static const char d[] = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < n; ++i) s += d[p[i] >> 4], s += d[p[i] & 15];
    return s;
}

TEST_P(Sha256Paths, PublishedVectors) {
    uint8_t out[32];
    const std::string million(1000000, 'a');
    sha256("abc", 3, out);
    EXPECT_EQ(hex(out, 32), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    sha256(million.data(), million.size(), out);
    EXPECT_EQ(hex(out, 32), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
    hmac_sha256_ctx c;  // RFC 4231 case 2
    hmac_sha256_init(&c, reinterpret_cast<const uint8_t*>("Jefe"), 4);
    hmac_sha256_update(&c, "what do ya want for nothing?", 28);
    hmac_sha256_final(&c, out);
    EXPECT_EQ(hex(out, 32), "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
    EXPECT_EQ(Bytes(c.okey, c.okey + 64), Bytes(64, 0)) << "final wipes the stored outer key";
}

TEST_P(Sha256Paths, StreamingInRandomSplitsEqualsOneShotEqualsOpenSsl) {
    std::mt19937_64 rng(2024);
    for (int trial = 0; trial < 2000; ++trial) {
        Bytes msg = random_bytes(rng, rng() % (trial < 1500 ? 300 : 20000));
        uint8_t theirs[32], one_shot[32], streamed[32];
        SHA256(msg.data(), msg.size(), theirs);
        sha256(msg.data(), msg.size(), one_shot);
        sha256_ctx c;
        sha256_init(&c);
        for (size_t pos = 0; pos < msg.size();) {
            size_t take = std::min<size_t>(msg.size() - pos, rng() % 150);
            sha256_update(&c, msg.data() + pos, take);
            pos += take;
        }
        sha256_final(&c, streamed);
        ASSERT_EQ(Bytes(one_shot, one_shot + 32), Bytes(theirs, theirs + 32)) << msg.size();
        ASSERT_EQ(Bytes(streamed, streamed + 32), Bytes(theirs, theirs + 32)) << msg.size();
    }
}

TEST_P(Sha256Paths, HmacWithKeysOfZeroTo200Bytes) {
    std::mt19937_64 rng(7);
    for (size_t key_len = 0; key_len <= 200; ++key_len) {
        for (int rep = 0; rep < 5; ++rep) {
            Bytes key = random_bytes(rng, key_len), msg = random_bytes(rng, rng() % 500);
            uint8_t ours[32], theirs[32];
            unsigned theirs_len = 0;
            HMAC(EVP_sha256(), key.data(), int(key.size()), msg.data(), msg.size(), theirs, &theirs_len);
            hmac_sha256_ctx c;
            hmac_sha256_init(&c, key.data(), key.size());
            size_t half = msg.size() / 2;
            hmac_sha256_update(&c, msg.data(), half);
            hmac_sha256_update(&c, msg.data() + half, msg.size() - half);
            hmac_sha256_final(&c, ours);
            ASSERT_EQ(Bytes(ours, ours + 32), Bytes(theirs, theirs + theirs_len)) << key_len;
        }
    }
}

QM_ON_EVERY_SHA256_PATH(Sha256Paths);

TEST(PublishedVectors, Sha512ChaCha20AndSmallHelpers) {
    uint8_t out[64];
    qm_sha512("abc", 3, out);
    EXPECT_EQ(hex(out, 64),
              "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a2192992a274fc1a836ba3c23a3feebbd454d4423643c"
              "e80e2a9ac94fa54ca49f");
    Bytes key = unhex("000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f");  // RFC 8439 2.4.2
    Bytes nonce = unhex("000000000000004a00000000");
    std::string text = "Ladies and Gentlemen of the class of '99: If I could offer you only one tip for the future, "
                       "sunscreen would be it.";
    chacha20_xor(key.data(), nonce.data(), 1, reinterpret_cast<uint8_t*>(text.data()), text.size());
    EXPECT_EQ(hex(reinterpret_cast<const uint8_t*>(text.data()), 32),
              "6e2e359a2568f98041ba0728dd0d6981e97e7aec1d4360c20a27afccfd9fae0b");
    uint8_t a[3] = {1, 2, 3}, b[3] = {1, 2, 4};
    EXPECT_EQ(ct_equal(nullptr, nullptr, 0) + ct_equal(a, b, 2), 2);
    EXPECT_EQ(ct_equal(a, b, 3), 0);
    EXPECT_EQ(fnv1a64("foobar", 6), 0x85944171f73967e8ULL);
    EXPECT_EQ(fnv1a64_update(fnv1a64("foo", 3), "bar", 3), fnv1a64("foobar", 6));
}

// RFC 8032 test 1: it verifies, and no flipped bit of signature, key or message does.
TEST(PublishedVectors, Ed25519EveryFlippedBitAndANonCanonicalSAreRefused) {
    Bytes pub = unhex("d75a980182b10ab7d54bfed3c964073a0ee172f3daa62325af021a68f707511a"), msg;
    Bytes sig = unhex("e5564300c360ac729086e2cc806e828a84877f1eb8e5d974d873e065224901555fb8821590a33bacc61e39701cf9b46bd"
                      "25bf5f0595bbe24655141438e7a100b");
    ASSERT_EQ(qm_ed25519_verify(msg.data(), 0, sig.data(), pub.data()), 1);
    for (Bytes* part : {&sig, &pub}) {
        for (size_t bit = 0; bit < part->size() * 8; ++bit) {
            (*part)[bit / 8] ^= uint8_t(1u << (bit % 8));
            ASSERT_EQ(qm_ed25519_verify(msg.data(), 0, sig.data(), pub.data()), 0) << bit;
            (*part)[bit / 8] ^= uint8_t(1u << (bit % 8));
        }
    }
    EXPECT_EQ(qm_ed25519_verify("x", 1, sig.data(), pub.data()), 0);
    // S + L is the same scalar modulo L; only the canonical form is accepted.
    Bytes L = unhex("edd3f55c1a631258d69cf7a2def9de1400000000000000000000000000000010");
    for (unsigned i = 0, carry = 0; i < 32; ++i) {
        unsigned v = sig[32 + i] + L[i] + carry;
        sig[32 + i] = uint8_t(v);
        carry = v >> 8;
    }
    EXPECT_EQ(qm_ed25519_verify(msg.data(), 0, sig.data(), pub.data()), 0);
}

TEST(Differential, Sha512) {
    std::mt19937_64 rng(512);
    for (int trial = 0; trial < 2000; ++trial) {
        Bytes msg = random_bytes(rng, rng() % 700);
        uint8_t ours[64], theirs[64];
        qm_sha512(msg.data(), msg.size(), ours);
        SHA512(msg.data(), msg.size(), theirs);
        ASSERT_EQ(Bytes(ours, ours + 64), Bytes(theirs, theirs + 64)) << msg.size();
    }
}

TEST(Differential, ChaCha20AtRandomCountersAndLengths) {
    std::mt19937_64 rng(8439);
    std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> ctx(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    for (int trial = 0; trial < 2000; ++trial) {
        Bytes key = random_bytes(rng, 32), nonce = random_bytes(rng, 12), data = random_bytes(rng, rng() % 1000);
        // Keep the counter from wrapping inside one message: OpenSSL carries into the nonce, the core does not.
        uint32_t counter = uint32_t(rng() % (trial % 2 ? 0xFFFFFF00u : 4u));
        uint8_t iv[16] = {uint8_t(counter), uint8_t(counter >> 8), uint8_t(counter >> 16), uint8_t(counter >> 24)};
        std::copy(nonce.begin(), nonce.end(), iv + 4);
        Bytes theirs(data.size());
        int out_len = 0;
        ASSERT_EQ(EVP_EncryptInit_ex(ctx.get(), EVP_chacha20(), nullptr, key.data(), iv), 1);
        ASSERT_EQ(EVP_EncryptUpdate(ctx.get(), theirs.data(), &out_len, data.data(), int(data.size())), 1);
        Bytes ours = data;
        chacha20_xor(key.data(), nonce.data(), counter, ours.data(), ours.size());
        ASSERT_EQ(ours, theirs) << counter << " " << data.size();
    }
}

struct Ed25519Key {
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key{nullptr, EVP_PKEY_free};
    uint8_t pub[32];
    explicit Ed25519Key(std::mt19937_64& rng) {
        Bytes seed = random_bytes(rng, 32);
        key.reset(EVP_PKEY_new_raw_private_key(EVP_PKEY_ED25519, nullptr, seed.data(), seed.size()));
        size_t len = 32;
        EVP_PKEY_get_raw_public_key(key.get(), pub, &len);
    }
    Bytes sign(const Bytes& msg) const {
        std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> md(EVP_MD_CTX_new(), EVP_MD_CTX_free);
        Bytes sig(64);
        size_t len = sig.size();
        EVP_DigestSignInit(md.get(), nullptr, nullptr, nullptr, key.get());
        EVP_DigestSign(md.get(), sig.data(), &len, msg.data(), msg.size());
        return sig;
    }
};

TEST(Differential, Ed25519SignaturesByOpenSslVerifyAndCorruptedOnesDoNot) {
    std::mt19937_64 rng(25519);
    for (int trial = 0; trial < 300; ++trial) {
        Ed25519Key k(rng);
        Bytes msg = random_bytes(rng, rng() % 257);
        Bytes sig = k.sign(msg);
        ASSERT_EQ(qm_ed25519_verify(msg.data(), msg.size(), sig.data(), k.pub), 1) << msg.size();

        Bytes bad_sig = sig, bad_msg = msg;
        uint8_t bad_pub[32];
        std::copy(k.pub, k.pub + 32, bad_pub);
        switch (trial % 3) {
            case 0: bad_sig[rng() % 64] ^= uint8_t(1u << (rng() % 8)); break;
            case 1: bad_pub[rng() % 32] ^= uint8_t(1u << (rng() % 8)); break;
            default:
                if (bad_msg.empty()) bad_msg.push_back(0);
                else bad_msg[rng() % bad_msg.size()] ^= uint8_t(1u << (rng() % 8));
        }
        ASSERT_EQ(qm_ed25519_verify(bad_msg.data(), bad_msg.size(), bad_sig.data(), bad_pub), 0) << trial;
    }
}

TEST(Differential, Ed25519MessageLimitIs256Bytes) {
    std::mt19937_64 rng(256);
    Ed25519Key k(rng);
    Bytes at_limit = random_bytes(rng, 256), over = random_bytes(rng, 257);
    Bytes sig_at = k.sign(at_limit), sig_over = k.sign(over);
    EXPECT_EQ(qm_ed25519_verify(at_limit.data(), at_limit.size(), sig_at.data(), k.pub), 1);
    EXPECT_EQ(qm_ed25519_verify(over.data(), over.size(), sig_over.data(), k.pub), 0);
}

}  // namespace
