// SPDX-License-Identifier: Apache-2.0
#include "base/time_text.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

namespace {

namespace platform = ravo::platform;

TEST(TimeText, IsLocalForPeopleAndUtcForPrograms) {
    setenv("TZ", "XXX-2", 1);
    tzset();
    constexpr std::int64_t time = 1717747750123456;
    EXPECT_EQ(platform::time_text(time), "2024-06-07 10:09:10.123");
    EXPECT_EQ(platform::time_text_utc(time), "2024-06-07T08:09:10.123456Z");
    unsetenv("TZ");
    tzset();
}

TEST(TimeText, ASpanHasItsTwoLargestUnits) {
    EXPECT_EQ(platform::span_text(0), "0 s");
    EXPECT_EQ(platform::span_text(59), "59 s");
    EXPECT_EQ(platform::span_text(180), "3 min");
    EXPECT_EQ(platform::span_text(7505), "2 h 5 min");
    EXPECT_EQ(platform::span_text(356400), "4 d 3 h");
}

}  // namespace
