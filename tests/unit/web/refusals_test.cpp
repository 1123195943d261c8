// SPDX-License-Identifier: Apache-2.0
#include "refusals.h"

#include <gtest/gtest.h>

namespace {

using namespace ravo::web;

TEST(Refusals, AreKnownByTheirCode) {
    EXPECT_EQ(refusal_of(0, "").status, 200);
    EXPECT_EQ(refusal_of(302020, "").text, "DHCP relay server ip error ");
    EXPECT_EQ(refusal_of(302022, "").text, "DHCP relay server exitsted already ");
    EXPECT_EQ(refusal_of(302022, "").status, 409);
    EXPECT_EQ(refusal_of(302023, "").text, "DHCP relay server full ");
    EXPECT_EQ(refusal_of(302025, "").text, "Set the same configuration current configuration");
}

TEST(Refusals, AreKnownByWhatTheCommandLinePrints) {
    EXPECT_EQ(refusal_of(1, "% No DHCP relay server on this interface \n").code, 302024);
    EXPECT_EQ(refusal_of(1,
                         "% Can not set dhcp relay config of this interface \n% please set IP address on this "
                         "interface first\n")
                  .code,
              302021);
    EXPECT_EQ(refusal_of(1, "% Invalid input\n").code, 0);
    EXPECT_EQ(refusal_of(1, "").code, 0);
    EXPECT_EQ(refusal_of(302019, "").code, 0);
    EXPECT_EQ(refusal_of(302026, "").code, 0);
}

}  // namespace
