// SPDX-License-Identifier: Apache-2.0
#include "options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace ravo::snmp;
using testing::ElementsAre;

TEST(SnmpOptions, HaveDefaults) {
    snmp_options o;
    ASSERT_EQ(parse_options({}, &o).text, "");
    EXPECT_THAT(o.base, ElementsAre(1, 3, 6, 1, 4, 1, 8072, 9999, 9999, 67));
    EXPECT_EQ(o.agentx, "");
    EXPECT_EQ(o.management, "/run/ravo/ravod.sock");
}

TEST(SnmpOptions, TakeAnIdentifier) {
    snmp_options o;
    ASSERT_EQ(parse_options({"--base-oid", ".1.3.6.1.4.1.4294967295", "--agentx=tcp:localhost:705"}, &o).text, "");
    EXPECT_EQ(o.base.back(), 4294967295UL);
    EXPECT_EQ(o.agentx, "tcp:localhost:705");
    for (const char *bad : {"1", "1.", ".", "1..3", "1.3x", "1.3.4294967296", "3.1", "1.40", "-1.3", "ravoMIB", "1.3 "})
        EXPECT_NE(parse_options({"--base-oid", bad}, &o).text, "") << bad;
    std::string deep = "1";
    for (int i = 0; i < 70; ++i) deep += ".3";
    EXPECT_NE(parse_options({"--base-oid", deep}, &o).text, "");
}

}  // namespace
