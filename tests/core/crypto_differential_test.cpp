// The core's primitives against OpenSSL, an independent implementation, over seeded random inputs.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/sha.h>

#include <memory>
#include <random>
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
