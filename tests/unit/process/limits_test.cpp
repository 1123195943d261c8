// SPDX-License-Identifier: Apache-2.0
#include "process/limits.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

namespace {

TEST(Limits, DescriptorsGoUpToTheHardLimitAndNotBeyond) {
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    ASSERT_GT(before.rlim_max, 64U);
    const rlimit low{.rlim_cur = 32, .rlim_max = before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    for (int i = 0; i < 2; ++i) {
        ravo::platform::limits_raise_descriptors();
        rlimit now{};
        ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &now), 0);
        EXPECT_EQ(now.rlim_cur, before.rlim_max);
        EXPECT_EQ(now.rlim_max, before.rlim_max);
    }
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
}

}  // namespace
