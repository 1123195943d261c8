// SPDX-License-Identifier: Apache-2.0
// Lines that repeat: ten are written, the rest is counted and told once a minute.
#include "log/log_hold.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace {

using ravo::platform::held_report;
using ravo::platform::hold_verdict;
using ravo::platform::log_hold;
using ravo::platform::log_hold_due;
using ravo::platform::log_hold_judge;
using ravo::platform::log_hold_like;
using ravo::platform::log_hold_wait;

constexpr std::int64_t second = 1000;

struct Hold : testing::Test {
    std::unique_ptr<log_hold> hold = std::make_unique<log_hold>();

    // How many of so many lines at once are written.
    int written(std::uint64_t key, int lines, std::int64_t now) {
        int count = 0;
        for (int i = 0; i < lines; ++i) {
            const hold_verdict verdict = log_hold_judge(*hold, key, now);
            if (verdict == hold_verdict::write) ++count;
            if (verdict == hold_verdict::hold_first)
                log_hold_like(*hold, key, 104, "text " + std::to_string(key) + " " + std::to_string(i));
        }
        return count;
    }
    // All reports that are due, as text.
    std::string due(std::int64_t now, bool all = false) {
        std::string out;
        held_report report;
        while (log_hold_due(*hold, all, now, &report))
            out += std::to_string(report.lines) + " in " + std::to_string(report.seconds) + ": " +
                   std::string(report.like) + " at " + std::to_string(report.level) + "\n";
        return out;
    }
};

TEST_F(Hold, TenLinesInTenSecondsAreWritten) {
    EXPECT_EQ(written(1, 10, 0), 10);
    EXPECT_EQ(written(1, 1, 9 * second), 0);
    EXPECT_EQ(written(2, 11, 9 * second), 10) << "another place counts for itself";
}

TEST_F(Hold, SlowLinesAreAllWritten) {
    for (std::int64_t i = 0; i < 100; ++i) EXPECT_EQ(written(1, 1, i * 1100), 1) << i;
    EXPECT_EQ(log_hold_wait(*hold, 200 * second), -1);
}

TEST_F(Hold, TheRestIsToldOnceAMinute) {
    EXPECT_EQ(written(1, 1000, 5 * second), 10);
    EXPECT_EQ(log_hold_wait(*hold, 5 * second), 60 * second);
    EXPECT_EQ(log_hold_wait(*hold, 25 * second), 40 * second);
    EXPECT_EQ(due(64 * second), "");
    EXPECT_EQ(written(1, 10, 64 * second), 0);
    EXPECT_EQ(due(65 * second), "1000 in 60: text 1 10 at 104\n");
    EXPECT_EQ(due(65 * second), "") << "once";
    EXPECT_EQ(written(1, 500, 70 * second), 0) << "it goes on, so it stays held back";
    EXPECT_EQ(due(125 * second), "500 in 60: text 1 10 at 104\n");
}

TEST_F(Hold, ItEndsWhenLinesBecomeRare) {
    EXPECT_EQ(written(1, 11, 0), 10);
    EXPECT_EQ(written(1, 5, second), 0);
    EXPECT_EQ(due(60 * second), "6 in 60: text 1 10 at 104\n");
    EXPECT_EQ(log_hold_wait(*hold, 60 * second), -1);
    EXPECT_EQ(written(1, 11, 61 * second), 10);
}

TEST_F(Hold, AMinuteWithoutLinesIsNotTold) {
    EXPECT_EQ(written(1, 100, 0), 10);
    EXPECT_EQ(due(60 * second), "90 in 60: text 1 10 at 104\n");
    EXPECT_EQ(due(120 * second), "");
    EXPECT_EQ(written(1, 1, 121 * second), 1);
}

TEST_F(Hold, WhatIsHeldBackCanBeToldAtAnyTime) {
    EXPECT_EQ(written(1, 12, 0), 10);
    EXPECT_EQ(written(2, 13, 0), 10);
    const std::string told = due(3 * second, /*all=*/true);
    EXPECT_NE(told.find("2 in 3: text 1 10 at 104\n"), std::string::npos) << told;
    EXPECT_NE(told.find("3 in 3: text 2 10 at 104\n"), std::string::npos) << told;
    EXPECT_EQ(due(3 * second, /*all=*/true), "");
    EXPECT_EQ(written(1, 1, 4 * second), 1);
}

TEST_F(Hold, ALongTextIsCut) {
    for (int i = 0; i < 11; ++i) (void)log_hold_judge(*hold, 1, 0);
    log_hold_like(*hold, 1, 103, std::string(1000, 'x'));
    EXPECT_EQ(due(60 * second), "1 in 60: " + std::string(200, 'x') + " at 103\n");
}

// More places than there is room for: those that hold back keep theirs, others are written.
TEST_F(Hold, AFullTableWritesWhatItCannotCount) {
    constexpr std::uint64_t many = 10000;
    for (std::uint64_t key = 1; key <= many; ++key) (void)written(key, 11, 0);
    EXPECT_EQ(hold->holding, log_hold::sets * log_hold::ways);
    EXPECT_EQ(written(many + 1, 100, 0), 100);
    EXPECT_EQ(written(1, 100, 0), 0) << "the first came to a place";
    (void)due(60 * second);
    EXPECT_EQ(hold->holding, 1u) << "one goes on";
    EXPECT_EQ(written(many + 1, 100, 61 * second), 10);
}

}  // namespace
