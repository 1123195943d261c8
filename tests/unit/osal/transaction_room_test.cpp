// SPDX-License-Identifier: Apache-2.0
// Who makes room when the budget of memory is used up: the oldest of the port that has most.
#include "osal/transaction_room.h"

#include <event2/event.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "base/loop.h"
#include "log/log.h"
#include "memmgr.h"
#include "memory/memmgr_budget.h"
#include "osal/osal_events.h"
#include "osal/timer_queue.h"

namespace {

using namespace ravo::platform;
using testing::ElementsAre;
using testing::MatchesRegex;

constexpr std::uint32_t port_1_1 = 5121, port_1_2 = 5122, port_1_3 = 5123;
constexpr std::size_t block = 64;
constexpr std::size_t room = 1600;  // transactions the budget has room for, without trees; a sixteenth is the reserve

struct record {
    std::uint32_t key;
    std::uint32_t port;
    osal_timer timer;
};

std::map<std::uint32_t, std::vector<std::uint32_t>> ended;  // keys by port

void end(void *arg) {
    const auto *which = static_cast<record *>(arg);
    ended[which->port].push_back(which->key);
    memmgr_free(arg);
}

// Opens a transaction as the daemon does. Returns whether it is remembered.
bool open(std::uint32_t port, std::uint32_t key = 0) {
    auto *made = static_cast<record *>(mfh_calloc(1, sizeof(record)));
    if (made == nullptr) return false;
    *made = {key, port, {}};
    return timer_queue_arm(&made->timer, end, 300, made, port);
}

void serve_ready() {
    event_base_loop(loop_base(), EVLOOP_NONBLOCK);
}

std::size_t armed_of(std::uint32_t port) {
    for (std::size_t row = 0; row < timer_queue_ports(); ++row)
        if (timer_queue_port(row).port == port) return timer_queue_port(row).armed;
    return 0;
}

struct TransactionRoom : testing::Test {
    TransactionRoom() {
        ended.clear();
        memmgr_set_budget(room * block);
        transaction_room_open();
        listener =
            log_add_listener(log_level_warning, [this](const log_event &event) { log.emplace_back(event.line); });
    }
    ~TransactionRoom() override {
        log_remove_listener(listener);
        transaction_room_close();
        for (std::size_t row = 0; row < timer_queue_ports(); ++row)
            while (timer_queue_port(row).armed != 0) timer_queue_fire_oldest(row);
        timers_free();
        loop_free();
        memmgr_set_budget(0);
    }
    int listener = 0;
    std::vector<std::string> log;
};

TEST_F(TransactionRoom, OnePortMayHaveAllThatNobodyElseWants) {
    for (std::uint32_t key = 0; key < room * 15 / 16; ++key) {
        ASSERT_TRUE(open(port_1_1, key));
        serve_ready();
    }
    EXPECT_TRUE(ended.empty());
    EXPECT_EQ(armed_of(port_1_1), room * 15 / 16);
}

TEST_F(TransactionRoom, AFloodTakesRoomFromItself) {
    for (std::uint32_t key = 0; key < 100; ++key) ASSERT_TRUE(open(port_1_2, key));
    for (std::uint32_t key = 0; key < 5 * room; ++key) {
        ASSERT_TRUE(open(port_1_1, key));
        if (key % 32 == 31) serve_ready();
    }
    serve_ready();
    EXPECT_EQ(armed_of(port_1_2), 100U);
    EXPECT_FALSE(ended.contains(port_1_2));
    EXPECT_EQ(armed_of(port_1_1), room * 15 / 16 - 100);
    // Its oldest went first, and none else.
    for (std::uint32_t key = 0; key < ended[port_1_1].size(); ++key) ASSERT_EQ(ended[port_1_1][key], key);
    EXPECT_EQ(ended[port_1_1].size(), 5 * room - armed_of(port_1_1));
}

TEST_F(TransactionRoom, OthersGetWhatTheyWantUpToTheSame) {
    for (std::uint32_t key = 0; key < 2 * room; ++key) {
        ASSERT_TRUE(open(port_1_1, key));
        if (key % 32 == 31) serve_ready();
    }
    for (std::uint32_t key = 0; key < 5 * room; ++key) {
        ASSERT_TRUE(open(port_1_2, key));
        ASSERT_TRUE(open(port_1_3, key));
        if (key % 16 == 15) serve_ready();
    }
    serve_ready();
    for (const std::uint32_t port : {port_1_1, port_1_2, port_1_3})
        EXPECT_NEAR(static_cast<double>(armed_of(port)), room * 15 / 16 / 3.0, 2.0) << port;
}

TEST_F(TransactionRoom, PastTheBudgetWithinATurnOfTheLoopIsCounted) {
    const transaction_figures before = transaction_room_figures();
    std::uint32_t kept = 0;
    for (std::uint32_t key = 0; key < room + 50; ++key) kept += open(port_1_1, key) ? 1U : 0U;
    EXPECT_EQ(kept, room);
    const transaction_figures after = transaction_room_figures();
    EXPECT_EQ(after.refused - before.refused, 50U);
    EXPECT_EQ(after.open, room);
    EXPECT_EQ(after.used, room * block);
    EXPECT_EQ(after.budget, room * block);
    serve_ready();
    EXPECT_TRUE(open(port_1_1, 0)) << "there is a reserve again";
}

TEST_F(TransactionRoom, WhatIsUsedByOtherRecordsCannotBeHelped) {
    std::vector<void *> records;
    while (void *made = mfh_calloc(1, 1000)) records.push_back(made);
    serve_ready();
    EXPECT_TRUE(ended.empty());
    for (void *made : records) memmgr_free(made);
}

TEST_F(TransactionRoom, IsToldOnceAMinute) {
    for (std::uint32_t key = 0; key < 3 * room; ++key) {
        ASSERT_TRUE(open(port_1_2, key));
        if (key % 32 == 31) serve_ready();
    }
    // The time of the last line is the process's, in which another test may have had it.
    EXPECT_LE(log.size(), 1U);
    for (const std::string &line : log)
        EXPECT_THAT(line,
                    MatchesRegex("the budget of 102400 bytes for transactions is used up: port 1/2 has [0-9]+ of "
                                 "[0-9]+, and the oldest of who has most are ended early \\([0-9]+ since the last "
                                 "such line\\)"));
}

}  // namespace
