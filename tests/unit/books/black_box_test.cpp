// SPDX-License-Identifier: Apache-2.0
// The black box: what a process that dies leaves in it, and how long its port is held.
#include "books/black_box.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include "child.h"

namespace {

using namespace ravo::platform;
using testing::HasSubstr;

const std::vector<std::uint8_t> frame = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 2, 0, 0, 0, 0, 1, 8, 0, 0x45, 0x11};

book_entry entry_of(std::uint32_t port) {
    book_entry entry;
    entry.time_us = 1717747750123456;  // 2024-06-07 08:09:10.123456 UTC
    entry.port_ifindex = port;
    entry.vlan = 10;
    entry.tag = {.protocol = 0x8100, .tci = 0x600A};
    entry.client = {2, 0, 0, 0, 0, 1};
    return entry;
}

struct BlackBox : testing::Test {
    std::string folder, path;
    BlackBox() {
        char name[] = "/tmp/black_box_test.XXXXXX";
        folder = mkdtemp(name);
        path = folder + "/box";
    }
    ~BlackBox() override {
        black_box_close();
        std::filesystem::remove_all(folder);
    }
    // A process that dies while it handles a message from a port. how: by which signal, which it notes unless it
    // cannot; 0: by an exit.
    void die(std::uint32_t port, const std::vector<std::uint8_t> &of = frame, int how = SIGABRT) const {
        black_box_close();  // the box is one process's
        const child::result result = child::run([&]() -> int {
            black_box_crash crash;
            if (black_box_open(path, &crash)) return 1;
            black_box_note(entry_of(port), of);
            if (how != SIGKILL) black_box_died(how);
            return how == 0 ? -1 : kill(getpid(), SIGKILL);
        });
        EXPECT_EQ(result.status, how == 0 ? 255 : -1);
    }
    black_box_crash found() const {
        black_box_crash crash;
        EXPECT_EQ(black_box_open(path, &crash).text, "");
        return crash;
    }
};

TEST_F(BlackBox, MessageOfWhoDiedIsFoundOnce) {
    die(5123);
    const black_box_crash crash = found();
    EXPECT_TRUE(crash.happened);
    EXPECT_EQ(crash.frame, frame);
    EXPECT_EQ(black_box_text(crash), "client 02:00:00:00:00:01 on VLAN 10, port 1/3, held for 10 s");
    EXPECT_TRUE(black_box_holds(5123));
    EXPECT_FALSE(black_box_holds(5122));
    EXPECT_FALSE(black_box_holds(0));
    EXPECT_FALSE(found().happened);
    EXPECT_TRUE(black_box_holds(5123)) << "a restart in order lifts nothing";
}

TEST_F(BlackBox, WhatIsDoneWithIsNotFound) {
    const child::result result = child::run([&]() -> int {
        black_box_crash crash;
        if (black_box_open(path, &crash)) return 1;
        black_box_note(entry_of(5123), frame);
        black_box_clear();
        std::abort();
    });
    EXPECT_EQ(result.status, -1);
    EXPECT_FALSE(found().happened);
    EXPECT_FALSE(black_box_holds(5123));
}

TEST_F(BlackBox, TimeDoublesUpToTenMinutes) {
    for (const unsigned seconds : {10U, 20U, 40U, 80U, 160U, 320U, 600U, 600U}) {
        die(5123);
        EXPECT_EQ(found().held_seconds, seconds);
    }
    die(5124);
    EXPECT_EQ(found().held_seconds, 10U) << "another port";
}

TEST_F(BlackBox, MorePortsThanItKnowsForgetTheOldest) {
    for (std::uint32_t port = 5121; port < 5121 + black_box_ports + 5; ++port) {
        die(port);
        EXPECT_EQ(found().held_seconds, 10U);
        EXPECT_TRUE(black_box_holds(port));
    }
}

TEST_F(BlackBox, OnNoPortHoldsNothing) {
    die(0);
    const black_box_crash crash = found();
    EXPECT_EQ(black_box_text(crash), "client 02:00:00:00:00:01 on VLAN 10, no port");
    EXPECT_FALSE(black_box_holds(0));
}

TEST_F(BlackBox, LongFrameIsCut) {
    die(5123, std::vector<std::uint8_t>(60000, 7));
    EXPECT_EQ(found().frame, std::vector<std::uint8_t>(black_box_frame_size, 7));
}

TEST_F(BlackBox, OrderlyEndLeavesNoFileUnlessAPortIsHeld) {
    (void)found();
    black_box_close();
    EXPECT_FALSE(std::filesystem::exists(path));
    die(5123);
    (void)found();
    black_box_close();
    EXPECT_TRUE(std::filesystem::exists(path));
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(BlackBox, NonsenseInTheFileIsNothing) {
    std::ofstream(path) << std::string(20000, '\xA5');
    std::filesystem::permissions(path, std::filesystem::perms(0600));
    EXPECT_FALSE(found().happened);
    EXPECT_FALSE(black_box_holds(0xA5A5A5A5));
    black_box_close();
    std::ofstream(path) << "short";
    std::filesystem::permissions(path, std::filesystem::perms(0600));
    EXPECT_FALSE(found().happened);
}

TEST_F(BlackBox, WhatIsNoFileOfOursIsRefused) {
    black_box_crash crash;
    const std::string target = folder + "/target";
    std::ofstream(target) << "x";
    ASSERT_EQ(symlink(target.c_str(), path.c_str()), 0);
    EXPECT_EQ(black_box_open(path, &crash).text,
              path + ": no message that ends the daemon can be noted: Too many levels of symbolic links");
    EXPECT_THAT(black_box_open("/dev/null", &crash).text, HasSubstr("noted: it is no file"));
    std::filesystem::remove(path);
    std::ofstream(path) << "x";
    std::filesystem::permissions(path, std::filesystem::perms(0620));
    EXPECT_THAT(black_box_open(path, &crash).text, HasSubstr("noted: others may use it; remove it"));
    black_box_note(entry_of(5123), frame);
    EXPECT_FALSE(black_box_holds(5123));
}

TEST_F(BlackBox, OnlyWhatEndedTheDaemonIsHeldAgainstAPort) {
    for (const auto &[how, cause, held] : {std::tuple{SIGKILL, "unknown", 0U},
                                           {SIGABRT, "SIGABRT", 10U},
                                           {SIGKILL, "unknown", 0U},
                                           {SIGSEGV, "SIGSEGV", 20U}}) {
        die(5123, frame, how);
        const black_box_crash crash = found();
        EXPECT_TRUE(crash.happened);
        EXPECT_EQ(black_box_cause(crash.cause), cause);
        EXPECT_EQ(crash.held_seconds, held);
        EXPECT_EQ(black_box_holds(5123), cause != std::string("unknown") || black_box_seconds_left(5123) != 0);
    }
    die(5124, frame, SIGKILL);
    EXPECT_EQ(black_box_text(found()),
              "client 02:00:00:00:00:01 on VLAN 10, port 1/4, not held as it was ended from outside");
    EXPECT_FALSE(black_box_holds(5124));
}

TEST_F(BlackBox, AnExitInTheMiddleOfAMessageIsTheDaemonsOwn) {
    die(5123, frame, 0);
    const black_box_crash crash = found();
    EXPECT_EQ(black_box_cause(crash.cause), "exit");
    EXPECT_EQ(crash.held_seconds, 10U);
}

TEST_F(BlackBox, TellsHowLongAPortIsStillHeldAndReleasesIt) {
    die(5123);
    (void)found();
    EXPECT_THAT(black_box_seconds_left(5123), testing::AllOf(testing::Ge(8U), testing::Le(10U)));
    EXPECT_EQ(black_box_seconds_left(5124), 0U);
    black_box_release();
    EXPECT_FALSE(black_box_holds(5123));
    EXPECT_EQ(black_box_seconds_left(5123), 0U);
    die(5123);
    EXPECT_EQ(found().held_seconds, 10U) << "it begins anew";
}

TEST_F(BlackBox, CausesHaveNames) {
    EXPECT_EQ(black_box_cause(black_box_unexplained), "unknown");
    EXPECT_EQ(black_box_cause(SIGILL), "SIGILL");
    EXPECT_EQ(black_box_cause(63), "unknown");
    EXPECT_EQ(black_box_cause(0xFFFFFFFF), "unknown");
}

}  // namespace
