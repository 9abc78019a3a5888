// Published test vectors for the core's primitives, run on every SHA-256 path available.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "qm_core.h"

namespace {

std::vector<uint8_t> unhex(const std::string& h) {
    std::vector<uint8_t> out;
    for (size_t i = 0; i + 1 < h.size(); i += 2) out.push_back(uint8_t(std::stoi(h.substr(i, 2), nullptr, 16)));
    return out;
}
std::string hex(const uint8_t* p, size_t n) {
    static const char d[] = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < n; ++i) s += d[p[i] >> 4], s += d[p[i] & 15];
    return s;
}
std::string sha256_hex(const std::string& m) {
    uint8_t out[32];
    sha256(m.data(), m.size(), out);
    return hex(out, 32);
}

class Sha256Paths : public ::testing::TestWithParam<int> {
protected:
    void SetUp() override {
        if (sha256_select(GetParam()) != 0) GTEST_SKIP() << "no hardware SHA-256 on this machine";
    }
    void TearDown() override { sha256_select(QM_SHA256_AUTO); }
};

TEST_P(Sha256Paths, Fips180Vectors) {
    EXPECT_EQ(sha256_hex(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(sha256_hex("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(sha256_hex("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
              "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
    EXPECT_EQ(sha256_hex(std::string(1000000, 'a')),
              "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

INSTANTIATE_TEST_SUITE_P(Core, Sha256Paths, ::testing::Values(QM_SHA256_PORTABLE, QM_SHA256_HARDWARE),
                         [](const auto& info) { return info.param == QM_SHA256_PORTABLE ? "portable" : "hardware"; });

TEST(Ed25519, Rfc8032Test1) {
    auto pub = unhex("d75a980182b10ab7d54bfed3c964073a0ee172f3daa62325af021a68f707511a");
    auto sig = unhex(
        "e5564300c360ac729086e2cc806e828a84877f1eb8e5d974d873e065224901555fb8821590a33bacc61e39701cf9b46bd25bf5f0595bbe24655141438e7a100b");
    EXPECT_EQ(qm_ed25519_verify("", 0, sig.data(), pub.data()), 1);
    sig[0] ^= 1;
    EXPECT_EQ(qm_ed25519_verify("", 0, sig.data(), pub.data()), 0);
}

}  // namespace
