// SPDX-License-Identifier: Apache-2.0
#include "process/start_text.h"

#include <gtest/gtest.h>

namespace {

using ravo::platform::start_remedy;
using ravo::platform::start_text;

TEST(StartText, CountsWhatIsThereAndWhatWasApplied) {
    EXPECT_EQ(start_text("/etc/ravo/startup-config", {.interfaces = 2, .ports = 48, .commands = 11, .failed = 0}),
              "ravod " RAVO_VERSION ": 2 VLAN interfaces, 48 ports; 11 lines of /etc/ravo/startup-config applied");
    EXPECT_EQ(start_text("x", {.interfaces = 1, .ports = 1, .commands = 3, .failed = 2}),
              "ravod " RAVO_VERSION ": 1 VLAN interface, 1 port; 1 line of x applied, 2 not");
    EXPECT_EQ(start_text("x", {}), "ravod " RAVO_VERSION ": 0 VLAN interfaces, 0 ports; 0 lines of x applied");
}

TEST(StartText, NoMoreFailThanThereAre) {
    EXPECT_EQ(start_text("x", {.commands = 1, .failed = 2}),
              "ravod " RAVO_VERSION ": 0 VLAN interfaces, 0 ports; 0 lines of x applied, 1 not");
}

TEST(StartRemedy, StandsBehindTheKernelsWords) {
    EXPECT_EQ(start_remedy("ravod: cannot make a socket: Too many open files"),
              "; allow it more open files (LimitNOFILE=, ulimit -n)");
    EXPECT_EQ(start_remedy("ravod: cannot write: No space left on device"), "; make room on the disk");
    EXPECT_EQ(start_remedy("ravod: cannot list interfaces: No buffer space available"),
              "; free memory, then start it again");
}

TEST(StartRemedy, IsNotAddedToWhatIsSaidAlready) {
    EXPECT_EQ(start_remedy("x: No space left on device; choose another folder"), "");
    EXPECT_EQ(start_remedy("Too many open files"), "");
    EXPECT_EQ(start_remedy("switch.toml:3:1: unknown key"), "");
    EXPECT_EQ(start_remedy(""), "");
}

}  // namespace
