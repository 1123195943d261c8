// SPDX-License-Identifier: Apache-2.0
// Lines that repeat, at the log itself: which lines are of one place, what they are about, and what is never held back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "base/loop.h"
#include "log/log.h"
#include "vex_init.h"

namespace {

using ravo::platform::log_close;
using ravo::platform::log_event;
using ravo::platform::log_level_error;
using ravo::platform::log_level_start;
using ravo::platform::log_level_trace;
using ravo::platform::log_level_warning;
using ravo::platform::log_line;
using ravo::platform::log_subject_begin;
using ravo::platform::log_subject_end;
using ravo::platform::log_tell_repeats;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// Lines go to the ring; /dev/null is their target.
struct Repeats : testing::Test {
    Repeats() {
        EXPECT_EQ(ravo::platform::log_open("/dev/null", log_level_trace).text, "");
        ravo::platform::log_hold_repeats();
    }
    ~Repeats() override {
        log_close();
        ravo::platform::loop_free();
    }
    // The lines so far, without their times; none are kept.
    static std::vector<std::string> lines() {
        constexpr std::size_t stamp = 24;
        std::vector<std::string> out;
        for (const std::string &line : ravo::platform::log_recent()) out.push_back(line.substr(stamp));
        return out;
    }
};

void relays_line(int level, const char *function, int line, const char *text) {
    vexprintf(32, 0, level, 0, "%s (%d): %s failed\n", function, line, text);
}

TEST_F(Repeats, TheRelaysLinesAreKnownByFunctionAndLine) {
    for (int i = 0; i < 25; ++i) relays_line(104, "f", 1, std::to_string(i).c_str());
    for (int i = 0; i < 5; ++i) relays_line(104, "f", 2, "other line");
    for (int i = 0; i < 5; ++i) relays_line(104, "g", 1, "other function");
    EXPECT_THAT(lines(), SizeIs(20));
    EXPECT_EQ(lines()[9], "f (1): 9 failed");
    EXPECT_EQ(lines()[10], "f (2): other line failed");
    log_tell_repeats();
    EXPECT_THAT(lines(), SizeIs(21));
    EXPECT_EQ(lines()[20], "15 more lines like this one in the last 0 s: f (1): 10 failed");
}

TEST_F(Repeats, EachVlanCountsForItself) {
    for (std::uint16_t vlan = 1; vlan <= 3; ++vlan) {
        for (int i = 0; i < 12; ++i) {
            log_subject_begin({.vlan = vlan, .port_ifindex = 5121});
            relays_line(103, "f", 1, "x");
            log_subject_end("hop-limit");
        }
    }
    EXPECT_THAT(lines(), SizeIs(30));
    // Where there is no VLAN the port tells them apart.
    for (std::uint32_t port = 5121; port <= 5122; ++port) {
        for (int i = 0; i < 12; ++i) {
            log_subject_begin({.port_ifindex = port});
            relays_line(103, "f", 1, "x");
            log_subject_end({});
        }
    }
    EXPECT_THAT(lines(), SizeIs(50));
}

TEST_F(Repeats, ThePlatformsLinesAreKnownByFormatAndFirstText) {
    for (int i = 0; i < 15; ++i) {
        log_line(log_level_error, "user %s does %d", "one", i);
        log_line(log_level_error, "user %s does %d", "two", i);
        log_line(log_level_error, "number %d", i);
        log_line(log_level_error, "%s", ("line of its own " + std::to_string(i)).c_str());
    }
    std::vector<std::string> one, two, number, own;
    for (const std::string &line : lines()) {
        if (line.starts_with("user one")) one.push_back(line);
        if (line.starts_with("user two")) two.push_back(line);
        if (line.starts_with("number")) number.push_back(line);
        if (line.starts_with("line")) own.push_back(line);
    }
    EXPECT_THAT(one, SizeIs(10));
    EXPECT_THAT(two, SizeIs(10));
    EXPECT_THAT(number, SizeIs(10));
    EXPECT_THAT(own, SizeIs(15)) << "texts that differ are no repetition";
}

TEST_F(Repeats, TracesAndLinesOfLevelZeroAreNeverHeldBack) {
    for (int i = 0; i < 30; ++i) {
        relays_line(101, "f", 1, "trace");
        relays_line(0, "f", 2, "start");
        log_line(log_level_trace, "trace");
        log_line(log_level_start, "audit");
    }
    EXPECT_THAT(lines(), SizeIs(120));
}

TEST_F(Repeats, PiecesOfALineAreNotTakenForLines) {
    for (int i = 0; i < 15; ++i) {
        vexprintf(32, 0, 104, 0, "piece ");
        relays_line(104, "f", 1, "rest");
    }
    EXPECT_THAT(lines(), SizeIs(15));
    EXPECT_THAT(lines(), Each(std::string("piece f (1): rest failed")));
}

TEST_F(Repeats, ListenersAreSparedToo) {
    std::vector<std::string> heard;
    (void)ravo::platform::log_add_listener(log_level_warning,
                                           [&](const log_event &event) { heard.emplace_back(event.line); });
    for (int i = 0; i < 1000; ++i) log_line(log_level_error, "again");
    EXPECT_THAT(heard, SizeIs(10));
    log_tell_repeats();
    EXPECT_THAT(heard, SizeIs(11));
}

TEST_F(Repeats, WhatIsToldFollowsTheThreshold) {
    for (int i = 0; i < 20; ++i) log_line(log_level_warning, "again");
    ravo::platform::log_set_threshold(log_level_error);
    log_tell_repeats();
    EXPECT_THAT(lines(), SizeIs(10));
}

TEST_F(Repeats, ListenersLearnLevelTimeAndSubject) {
    std::vector<std::string> heard;
    (void)ravo::platform::log_add_listener(log_level_trace, [&](const log_event &event) {
        heard.push_back(std::to_string(event.level) + " " + std::to_string(event.subject.vlan) + " " +
                        std::string(event.line));
        EXPECT_LE(std::abs(event.when.tv_sec - time(nullptr)), 1);
    });
    log_subject_begin({.vlan = 10});
    relays_line(104, "f", 1, "x");
    log_subject_end({});
    log_line(log_level_trace, "later");
    EXPECT_THAT(heard, ElementsAre("104 10 f (1): x failed", "101 0 later"));
}

TEST_F(Repeats, TheFormerWaysAreBackWhenNothingIsHeldBackAnyMore) {
    log_tell_repeats();
    EXPECT_THAT(lines(), IsEmpty());
    for (int i = 0; i < 30; ++i) log_line(log_level_error, "again");
    EXPECT_THAT(lines(), SizeIs(30));
}

}  // namespace
