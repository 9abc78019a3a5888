// The update message byte for byte, its Ed25519 check against signatures made by OpenSSL,
// and the order of version strings.
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <random>
#include <string>
#include <vector>

#include "qm_core.h"

namespace {

const std::string kSha(64, 'a');

std::string message(const char* platform, const char* channel, const char* version, const std::string& sha,
                    int64_t size) {
    char out[512];
    int rc = qm_update_message(platform, channel, version, sha.c_str(), size, out, sizeof out);
    return rc == 0 ? std::string(out) : "rc " + std::to_string(rc);
}

TEST(UpdateMessage, SixLinesByteForByte) {
    EXPECT_EQ(message("macos", "stable", "1.4.0", kSha, 1234), "qm-update-v1\nmacos\nstable\n1.4.0\n" + kSha + "\n1234\n");
    EXPECT_EQ(message("linux", "beta", "2.0.0-rc1", kSha, 0), "qm-update-v1\nlinux\nbeta\n2.0.0-rc1\n" + kSha + "\n0\n");
    EXPECT_EQ(message("", " x ", "", "", INT64_MAX), "qm-update-v1\n\n x \n\n\n9223372036854775807\n")
        << "fields are copied unchanged, empty ones too";
}

TEST(UpdateMessage, CapacityLimits) {
    const std::string whole = "qm-update-v1\nmacos\nstable\n1.4.0\n" + kSha + "\n1234\n";
    const int need = int(whole.size()) + 1;
    for (int cap = 2; cap <= need + 1; ++cap) {
        std::vector<char> out(static_cast<size_t>(cap));
        int rc = qm_update_message("macos", "stable", "1.4.0", kSha.c_str(), 1234, out.data(), cap);
        ASSERT_EQ(rc, cap >= need ? 0 : -8) << "cap " << cap;
        if (rc == 0) {
            EXPECT_EQ(std::string(out.data()), whole);
        }
    }
    char out[2];
    EXPECT_EQ(qm_update_message("macos", "stable", "1.4.0", kSha.c_str(), 1, out, 1), -1);
}

// An Ed25519 key made by OpenSSL from a fixed seed, signing what it is given.
class Signer {
public:
    explicit Signer(uint8_t seed_byte) {
        uint8_t seed[32];
        for (int i = 0; i < 32; ++i) seed[i] = uint8_t(seed_byte + i * 7);
        key_ = EVP_PKEY_new_raw_private_key(EVP_PKEY_ED25519, nullptr, seed, 32);
        size_t n = 32;
        EVP_PKEY_get_raw_public_key(key_, pub_, &n);
    }
    ~Signer() { EVP_PKEY_free(key_); }
    const uint8_t* pub() const { return pub_; }
    std::vector<uint8_t> sign(const std::string& m) const {
        std::vector<uint8_t> sig(64);
        size_t n = sig.size();
        EVP_MD_CTX* ctx = EVP_MD_CTX_new();
        EVP_DigestSignInit(ctx, nullptr, nullptr, nullptr, key_);
        EVP_DigestSign(ctx, sig.data(), &n, reinterpret_cast<const uint8_t*>(m.data()), m.size());
        EVP_MD_CTX_free(ctx);
        return sig;
    }

private:
    EVP_PKEY* key_ = nullptr;
    uint8_t pub_[32] = {};
};

TEST(UpdateVerify, AcceptsOpenSslSignaturesAndRejectsAnyChange) {
    Signer signer(3), other(99);
    std::mt19937 rng(11);
    for (int round = 0; round < 40; ++round) {
        std::string version = std::to_string(rng() % 5) + "." + std::to_string(rng() % 20) + "." + std::to_string(rng() % 9);
        std::string m = message("linux", round % 2 ? "stable" : "beta", version.c_str(), kSha, int64_t(rng()));
        std::vector<uint8_t> sig = signer.sign(m);
        ASSERT_EQ(qm_update_verify(m.c_str(), sig.data(), signer.pub()), 1) << m;
        EXPECT_EQ(qm_update_verify(m.c_str(), sig.data(), other.pub()), 0);
        std::string changed = m;
        changed[rng() % changed.size()] ^= 0x01;
        EXPECT_EQ(qm_update_verify(changed.c_str(), sig.data(), signer.pub()), 0);
        sig[rng() % 64] ^= uint8_t(1u << (rng() % 8));
        EXPECT_EQ(qm_update_verify(m.c_str(), sig.data(), signer.pub()), 0);
    }
}

TEST(VersionCompare, FirstThreeNumericComponents) {
    struct Case {
        const char *a, *b;
        int want;
    } cases[] = {
        {"1.10", "1.9", 1},         {"2.0.0", "2", 0},       {"1.2.3-beta", "1.2.3", 0}, {nullptr, "0", 0},
        {"1.2.3", "1.2.4", -1},     {"1.2.3.4", "1.2.3", 0}, {"1.2-rc1", "1.2.0", 0},    {"v1.2.3", "0.0.0", 0},
        {"1.10.0", "1.9.9", 1},     {"", nullptr, 0},        {"0.9", "1", -1},           {"10", "9.99.99", 1},
        {"1..2", "1.0.2", 0},       {"007.1", "7.1", 0},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(qm_version_compare(c.a, c.b), c.want) << (c.a ? c.a : "null") << " vs " << (c.b ? c.b : "null");
        EXPECT_EQ(qm_version_compare(c.b, c.a), -c.want) << "antisymmetric";
    }
}

}  // namespace
