// The update message byte for byte, its Ed25519 check against OpenSSL's signatures, version order.
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <memory>
#include <random>
#include <string>

#include "qm_core.h"

namespace {

const std::string kSha(64, 'a');

std::string message(const char* platform, const char* channel, const char* version, int64_t size, int cap = 512) {
    std::string out(size_t(cap), '\0');
    int rc = qm_update_message(platform, channel, version, kSha.c_str(), size, out.data(), cap);
    return rc == 0 ? std::string(out.data()) : "rc " + std::to_string(rc);
}

// Fields are copied unchanged, empty ones too; a buffer one byte short of the message is refused.
TEST(UpdateMessage, SixLinesByteForByteWithinTheCapacity) {
    const std::string whole = "qm-update-v1\nmacos\nstable\n1.4.0\n" + kSha + "\n1234\n";
    EXPECT_EQ(message("", " x ", "", INT64_MAX), "qm-update-v1\n\n x \n\n" + kSha + "\n9223372036854775807\n");
    for (int cap = 1; cap <= int(whole.size()) + 2; ++cap) {
        EXPECT_EQ(message("macos", "stable", "1.4.0", 1234, cap),
                  cap > int(whole.size()) ? whole : cap == 1 ? "rc -1" : "rc -8") << "cap " << cap;
    }
}

// Signatures by an OpenSSL Ed25519 key verify; any changed bit of message, signature or key does not.
TEST(UpdateVerify, AcceptsOpenSslSignaturesAndRejectsAnyChange) {
    uint8_t seed[32], pub[32], sig[64];
    for (int i = 0; i < 32; ++i) seed[i] = uint8_t(3 + i * 7);
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> signer(
        EVP_PKEY_new_raw_private_key(EVP_PKEY_ED25519, nullptr, seed, 32), EVP_PKEY_free);
    size_t n = 32;
    ASSERT_EQ(EVP_PKEY_get_raw_public_key(signer.get(), pub, &n), 1);
    std::mt19937 rng(11);
    for (int round = 0; round < 40; ++round) {
        const std::string m = message("linux", round % 2 ? "stable" : "beta", std::to_string(round).c_str(), rng());
        std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> c(EVP_MD_CTX_new(), EVP_MD_CTX_free);
        ASSERT_EQ(EVP_DigestSignInit(c.get(), nullptr, nullptr, nullptr, signer.get()), 1);
        size_t sig_len = 64;
        ASSERT_EQ(EVP_DigestSign(c.get(), sig, &sig_len, reinterpret_cast<const uint8_t*>(m.data()), m.size()), 1);
        ASSERT_EQ(qm_update_verify(m.c_str(), sig, pub), 1) << m;
        pub[round % 32] ^= 0x01;  // another key
        EXPECT_EQ(qm_update_verify(m.c_str(), sig, pub), 0);
        pub[round % 32] ^= 0x01;
        std::string changed = m;
        changed[rng() % changed.size()] ^= 0x01;
        EXPECT_EQ(qm_update_verify(changed.c_str(), sig, pub), 0);
        sig[rng() % 64] ^= uint8_t(1u << (rng() % 8));
        EXPECT_EQ(qm_update_verify(m.c_str(), sig, pub), 0);
    }
}

TEST(VersionCompare, FirstThreeNumericComponents) {
    const struct { const char *a, *b; int want; } cases[] = {
        {"1.10", "1.9", 1}, {"2.0.0", "2", 0}, {"1.2.3-beta", "1.2.3", 0}, {nullptr, "0", 0}, {"1.2.3", "1.2.4", -1},
        {"1.2.3.4", "1.2.3", 0}, {"1.2-rc1", "1.2.0", 0}, {"v1.2.3", "0.0.0", 0}, {"1.10.0", "1.9.9", 1},
        {"", nullptr, 0}, {"0.9", "1", -1}, {"10", "9.99.99", 1}, {"1..2", "1.0.2", 0}, {"007.1", "7.1", 0},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(qm_version_compare(c.a, c.b), c.want) << (c.a ? c.a : "null") << " vs " << (c.b ? c.b : "null");
        EXPECT_EQ(qm_version_compare(c.b, c.a), -c.want) << "antisymmetric";
    }
}

}  // namespace
