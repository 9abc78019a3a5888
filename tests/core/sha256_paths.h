// Runs a test once on each SHA-256 path; the hardware one is skipped where the processor lacks it.
#pragma once
#include <gtest/gtest.h>

#include "qm_core_internal.h"

class Sha256Paths : public ::testing::TestWithParam<int> {
protected:
    void SetUp() override {
        if (sha256_select(GetParam()) != 0) GTEST_SKIP() << "no hardware SHA-256 on this machine";
    }
    void TearDown() override { sha256_select(QM_SHA256_AUTO); }
};

inline std::string sha256_path_name(const ::testing::TestParamInfo<int>& info) {
    return info.param == QM_SHA256_PORTABLE ? "portable" : "hardware";
}

#define QM_ON_EVERY_SHA256_PATH(suite) \
    INSTANTIATE_TEST_SUITE_P(Core, suite, ::testing::Values(QM_SHA256_PORTABLE, QM_SHA256_HARDWARE), sha256_path_name)
