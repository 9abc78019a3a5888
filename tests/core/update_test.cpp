// The update message byte for byte and version order. Its signature check is Ed25519's, tested in
// crypto_test and, on whole signed releases, in updater_test.
#include <gtest/gtest.h>

#include <string>

#include "qm_core_internal.h"

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
