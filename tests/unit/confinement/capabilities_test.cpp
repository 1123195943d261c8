// SPDX-License-Identifier: Apache-2.0
// Capabilities that were given up do not come back.
#include "confinement/capabilities.h"

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "child.h"

using namespace ravo::platform;

namespace {

constexpr std::uint64_t raw = capability_bit(CAP_NET_RAW), bind_low = capability_bit(CAP_NET_BIND_SERVICE);

struct Capabilities : testing::Test {
    void SetUp() override {
        if ((capabilities_permitted() & (raw | bind_low)) != (raw | bind_low)) GTEST_SKIP() << "has none to give up";
    }
};

TEST_F(Capabilities, WhatIsNotKeptIsGoneForGood) {
    const child::result result = child::run([] {
        if (capabilities_keep(raw | bind_low) != 0 || capabilities_permitted() != (raw | bind_low)) return 1;
        if (capabilities_keep(raw) != 0 || capabilities_permitted() != raw) return 2;
        if (capabilities_keep(raw | bind_low) != 0 || capabilities_permitted() != raw) return 3;
        return capabilities_keep(0) == 0 && capabilities_permitted() == 0 ? 0 : 4;
    });
    EXPECT_EQ(result.status, 0);
}

TEST_F(Capabilities, BoundsHoldForWhatComesAfter) {
    const child::result result = child::run([] {
        capabilities_bound(raw);
        if (prctl(PR_CAPBSET_READ, CAP_NET_RAW, 0, 0, 0) != 1) return 1;
        for (unsigned number = 0; number <= CAP_LAST_CAP; ++number)
            if (number != CAP_NET_RAW && prctl(PR_CAPBSET_READ, number, 0, 0, 0) > 0) return 2;
        return 0;
    });
    EXPECT_EQ(result.status, 0);
}

}  // namespace
