// Published test vectors for the core's primitives; SHA-256 runs them on every path available.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "qm_core.h"
#include "sha256_paths.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes unhex(const std::string& h) {
    Bytes out;
    for (size_t i = 0; i + 1 < h.size(); i += 2) out.push_back(uint8_t(std::stoi(h.substr(i, 2), nullptr, 16)));
    return out;
}
Bytes bytes(const std::string& s) { return Bytes(s.begin(), s.end()); }
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
std::string sha512_hex(const std::string& m) {
    uint8_t out[64];
    qm_sha512(m.data(), m.size(), out);
    return hex(out, 64);
}
std::string hmac_hex(const Bytes& key, const Bytes& data) {
    hmac_sha256_ctx c;
    uint8_t out[32];
    hmac_sha256_init(&c, key.data(), key.size());
    hmac_sha256_update(&c, data.data(), data.size());
    hmac_sha256_final(&c, out);
    return hex(out, 32);
}

TEST_P(Sha256Paths, Fips180Vectors) {
    EXPECT_EQ(sha256_hex(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(sha256_hex("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(sha256_hex("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
              "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
    EXPECT_EQ(sha256_hex(std::string(1000000, 'a')),
              "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST_P(Sha256Paths, HmacRfc4231AllCases) {
    const std::string larger_key = "Test Using Larger Than Block-Size Key - Hash Key First";
    const std::string larger_both =
        "This is a test using a larger than block-size key and a larger than block-size data. The key needs to be "
        "hashed before being used by the HMAC algorithm.";
    EXPECT_EQ(hmac_hex(Bytes(20, 0x0b), bytes("Hi There")),
              "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7");
    EXPECT_EQ(hmac_hex(bytes("Jefe"), bytes("what do ya want for nothing?")),
              "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
    EXPECT_EQ(hmac_hex(Bytes(20, 0xaa), Bytes(50, 0xdd)),
              "773ea91e36800e46854db8ebd09181a72959098b3ef8c122d9635514ced565fe");
    EXPECT_EQ(hmac_hex(unhex("0102030405060708090a0b0c0d0e0f10111213141516171819"), Bytes(50, 0xcd)),
              "82558a389a443c0ea4cc819899f2083a85f0faa3e578f8077a2e3ff46729665b");
    EXPECT_EQ(hmac_hex(Bytes(20, 0x0c), bytes("Test With Truncation")).substr(0, 32),
              "a3b6167473100ee06e0c796c2955552b");
    EXPECT_EQ(hmac_hex(Bytes(131, 0xaa), bytes(larger_key)),
              "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54");
    EXPECT_EQ(hmac_hex(Bytes(131, 0xaa), bytes(larger_both)),
              "9b09ffa71b942fcb27635fbcd5b0e944bfdc63644f0713938a7f51535c3a35e2");
}

QM_ON_EVERY_SHA256_PATH(Sha256Paths);

TEST(Hmac, FinalWipesTheStoredOuterKey) {
    hmac_sha256_ctx c;
    uint8_t key[32], out[32];
    for (int i = 0; i < 32; ++i) key[i] = uint8_t(i + 1);
    hmac_sha256_init(&c, key, sizeof key);
    hmac_sha256_final(&c, out);
    EXPECT_EQ(Bytes(c.okey, c.okey + 64), Bytes(64, 0));
}

TEST(Sha512, Fips180Vectors) {
    EXPECT_EQ(sha512_hex(""),
              "cf83e1357eefb8bdf1542850d66d8007d620e4050b5715dc83f4a921d36ce9ce47d0d13c5d85f2b0ff8318d2877eec2f63b931bd4741"
              "7a81a538327af927da3e");
    EXPECT_EQ(sha512_hex("abc"),
              "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a2192992a274fc1a836ba3c23a3feebbd454d4423643c"
              "e80e2a9ac94fa54ca49f");
    EXPECT_EQ(sha512_hex("abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmnoijklmnopjklmnopqklmnopqrlmnopqrsm"
                         "nopqrstnopqrstu"),
              "8e959b75dae313da8cf4f72814fc143f8f7779c6eb9f7fa17299aeadb6889018501d289e4900f7e4331b99dec4b5433ac7d329eeb6"
              "dd26545e96e55b874be909");
    EXPECT_EQ(sha512_hex(std::string(1000000, 'a')),
              "e718483d0ce769644e2e42c7bc15b4638e1f98b13b2044285632a803afa973ebde0ff244877ea60a4cb0432ce577c31beb009c5c2c"
              "49aa2e4eadb217ad8cc09b");
}

TEST(ChaCha20, Rfc8439Section242AndTwiceRestores) {
    Bytes key = unhex("000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f");
    Bytes nonce = unhex("000000000000004a00000000");
    const std::string plain =
        "Ladies and Gentlemen of the class of '99: If I could offer you only one tip for the future, sunscreen would be "
        "it.";
    Bytes buf = bytes(plain);
    chacha20_xor(key.data(), nonce.data(), 1, buf.data(), buf.size());
    EXPECT_EQ(hex(buf.data(), buf.size()),
              "6e2e359a2568f98041ba0728dd0d6981e97e7aec1d4360c20a27afccfd9fae0bf91b65c5524733ab8f593dabcd62b3571639d624e6"
              "5152ab8f530c359f0861d807ca0dbf500d6a6156a38e088a22b65e52bc514d16ccf806818ce91ab77937365af90bbf74a35be6b40b"
              "8eedf2785e42874d");
    chacha20_xor(key.data(), nonce.data(), 1, buf.data(), buf.size());
    EXPECT_EQ(buf, bytes(plain));
}

TEST(SmallHelpers, ConstantTimeEqualAndFnv) {
    uint8_t a[3] = {1, 2, 3}, b[3] = {1, 2, 4};
    EXPECT_EQ(ct_equal(nullptr, nullptr, 0), 1);
    EXPECT_EQ(ct_equal(a, b, 2), 1);
    EXPECT_EQ(ct_equal(a, b, 3), 0);
    EXPECT_EQ(fnv1a64("", 0), 0xcbf29ce484222325ULL);
    EXPECT_EQ(fnv1a64("a", 1), 0xaf63dc4c8601ec8cULL);
    EXPECT_EQ(fnv1a64("foobar", 6), 0x85944171f73967e8ULL);
    EXPECT_EQ(fnv1a64_update(fnv1a64("foo", 3), "bar", 3), fnv1a64("foobar", 6));
}

struct Rfc8032Case {
    const char* pub;
    const char* msg;
    const char* sig;
};
const Rfc8032Case kRfc8032[] = {
    {"d75a980182b10ab7d54bfed3c964073a0ee172f3daa62325af021a68f707511a", "",
     "e5564300c360ac729086e2cc806e828a84877f1eb8e5d974d873e065224901555fb8821590a33bacc61e39701cf9b46bd25bf5f0595bbe24"
     "655141438e7a100b"},
    {"3d4017c3e843895a92b70aa74d1b7ebc9c982ccf2ec4968cc0cd55f12af4660c", "72",
     "92a009a9f0d4cab8720e820b5f642540a2b27b5416503f8fb3762223ebdb69da085ac1e43e15996e458f3613d0f11d8c387b2eaeb4302aee"
     "b00d291612bb0c00"},
    {"fc51cd8e6218a1a38da47ed00230f0580816ed13ba3303ac5deb911548908025", "af82",
     "6291d657deec24024827e69c3abe01a30ce548a284743a445e3680d7db5ac3ac18ff9b538d16f290ae67f760984dc6594a7c15e9716ed28d"
     "c027beceea1ec40a"},
};

TEST(Ed25519, Rfc8032VectorsVerifyAndEveryFlippedBitIsRefused) {
    for (const Rfc8032Case& c : kRfc8032) {
        Bytes pub = unhex(c.pub), msg = unhex(c.msg), sig = unhex(c.sig);
        ASSERT_EQ(qm_ed25519_verify(msg.data(), msg.size(), sig.data(), pub.data()), 1) << c.pub;
        for (Bytes* part : {&sig, &pub, &msg}) {
            for (size_t bit = 0; bit < part->size() * 8; ++bit) {
                (*part)[bit / 8] ^= uint8_t(1u << (bit % 8));
                ASSERT_EQ(qm_ed25519_verify(msg.data(), msg.size(), sig.data(), pub.data()), 0) << bit;
                (*part)[bit / 8] ^= uint8_t(1u << (bit % 8));
            }
        }
    }
}

TEST(Ed25519, RefusesNullsAndAnSAboveTheGroupOrder) {
    Bytes pub = unhex(kRfc8032[0].pub), sig = unhex(kRfc8032[0].sig);
    EXPECT_EQ(qm_ed25519_verify("", 0, nullptr, pub.data()), 0);
    EXPECT_EQ(qm_ed25519_verify("", 0, sig.data(), nullptr), 0);
    EXPECT_EQ(qm_ed25519_verify(nullptr, 1, sig.data(), pub.data()), 0);
    // S + L is the same scalar modulo L; only the canonical form is accepted.
    Bytes L = unhex("edd3f55c1a631258d69cf7a2def9de1400000000000000000000000000000010");
    unsigned carry = 0;
    for (int i = 0; i < 32; ++i) {
        unsigned v = sig[32 + i] + L[i] + carry;
        sig[32 + i] = uint8_t(v);
        carry = v >> 8;
    }
    EXPECT_EQ(qm_ed25519_verify("", 0, sig.data(), pub.data()), 0);
}

}  // namespace
