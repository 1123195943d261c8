// SPDX-License-Identifier: Apache-2.0
// The Linux platform's services keep what the boundary promises.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ravo_conformance.h"

namespace {

std::vector<std::string> found;

TEST(Conformance, TheLinuxPlatformHasNoFault) {
    EXPECT_EQ(ravo_conformance(
                  [](const char *service, const char *what) { found.push_back(std::string(service) + ": " + what); }),
              0);
    EXPECT_THAT(found, testing::IsEmpty());
}

}  // namespace
