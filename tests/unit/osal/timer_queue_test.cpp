// SPDX-License-Identifier: Apache-2.0
// Timers in the daemon's records: in portions, by port, and gone with their record.
#include "osal/timer_queue.h"

#include <event2/event.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <vector>

#include "base/loop.h"
#include "memmgr.h"
#include "memory/memmgr_budget.h"
#include "osal/osal_events.h"

namespace {

using namespace ravo::platform;
using testing::ElementsAre;

constexpr std::uint32_t port_1_1 = 5121, port_1_2 = 5122;

struct record {
    std::uint32_t key;
    osal_timer timer;
};

std::vector<std::uint32_t> fired;

void note(void *arg) {
    fired.push_back(static_cast<record *>(arg)->key);
}

void note_and_free(void *arg) {
    note(arg);
    memmgr_free(arg);
}

// As long as serving takes, so that what is due is more than a turn's work.
void take_time(void *arg) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(100);
    while (std::chrono::steady_clock::now() < until) {
    }
    note_and_free(arg);
}

record *make(std::uint32_t key) {
    auto *made = static_cast<record *>(mfh_calloc(1, sizeof(record)));
    made->key = key;
    return made;
}

bool arm(record *which, std::uint32_t port, std::uint32_t seconds = 300, osal_timer_callback callback = note_and_free) {
    return timer_queue_arm(&which->timer, callback, seconds, which, port);
}

const port_timers &timers_of(std::uint32_t port) {
    for (std::size_t row = 0; row < timer_queue_ports(); ++row)
        if (timer_queue_port(row).port == port) return timer_queue_port(row);
    ADD_FAILURE() << "no row for " << port;
    return timer_queue_port(0);
}

std::size_t row_of(std::uint32_t port) {
    std::size_t row = 0;
    while (row < timer_queue_ports() && timer_queue_port(row).port != port) ++row;
    return row;
}

struct TimerQueue : testing::Test {
    TimerQueue() { fired.clear(); }
    ~TimerQueue() override {
        timers_free();
        loop_free();
        EXPECT_EQ(memmgr_used(), 0U);
    }
};

TEST_F(TimerQueue, CountsTheOpenOnesOfEachPort) {
    record *a = make(1), *b = make(2), *c = make(3);
    EXPECT_TRUE(arm(a, port_1_1) && arm(b, port_1_2) && arm(c, port_1_1));
    EXPECT_EQ(timers_of(port_1_1).armed, 2U);
    EXPECT_EQ(timers_of(port_1_2).armed, 1U);
    EXPECT_EQ(timer_queue_count(), 3U);
    // Asked again from another port, a transaction is that port's.
    EXPECT_TRUE(arm(a, port_1_2));
    EXPECT_EQ(timers_of(port_1_1).armed, 1U);
    EXPECT_EQ(timers_of(port_1_2).armed, 2U);
    for (record *each : {a, b, c}) {
        EXPECT_TRUE(timer_queue_disarm(&each->timer));
        EXPECT_FALSE(timer_queue_disarm(&each->timer));
        memmgr_free(each);
    }
    EXPECT_EQ(timers_of(port_1_1).armed, 0U);
    EXPECT_EQ(timers_of(port_1_2).armed, 0U);
}

TEST_F(TimerQueue, WhatHasNoPortHasARowToo) {
    record *a = make(1), *b = make(2);
    EXPECT_TRUE(arm(a, 0) && arm(b, 99999999));
    EXPECT_EQ(timer_queue_port(0).armed, 2U);
    EXPECT_EQ(timer_queue_port(0).port, 0U);
    memmgr_free(a);
    memmgr_free(b);
}

TEST_F(TimerQueue, TheOldestOfAPortCanBeFiredBeforeItsTime) {
    for (const std::uint32_t key : {1U, 2U, 3U, 4U}) EXPECT_TRUE(arm(make(key), key % 2 == 0 ? port_1_2 : port_1_1));
    const std::uint64_t before = timers_of(port_1_2).ended_early;
    timer_queue_fire_oldest(row_of(port_1_2));
    timer_queue_fire_oldest(row_of(port_1_1));
    timer_queue_fire_oldest(row_of(port_1_2));
    EXPECT_THAT(fired, ElementsAre(2, 1, 4));
    EXPECT_EQ(timers_of(port_1_2).ended_early, before + 2);
    EXPECT_EQ(timer_queue_count(), 1U);
    timer_queue_fire_oldest(row_of(port_1_1));
}

TEST_F(TimerQueue, ARecordThatIsFreedTakesItsTimerWithIt) {
    record *first = make(1), *middle = make(2), *last = make(3);
    EXPECT_TRUE(arm(first, port_1_1, 0, note) && arm(middle, port_1_1, 0, note) && arm(last, port_1_1, 0, note));
    memmgr_free(middle);
    EXPECT_EQ(timer_queue_count(), 2U);
    while (timer_queue_count() != 0) event_base_loop(loop_base(), EVLOOP_ONCE);
    EXPECT_THAT(fired, ElementsAre(1, 3));
    memmgr_free(first);
    memmgr_free(last);
}

TEST_F(TimerQueue, OneRecordHasOneTimerHere) {
    struct two {
        osal_timer first, second;
    };
    auto *both = static_cast<two *>(mfh_calloc(1, sizeof(two)));
    EXPECT_TRUE(timer_queue_arm(&both->first, note, 300, both, 0));
    EXPECT_FALSE(timer_queue_arm(&both->second, note, 300, both, 0));
    EXPECT_FALSE(timer_queue_disarm(&both->second));
    EXPECT_TRUE(timer_queue_disarm(&both->first));
    EXPECT_TRUE(timer_queue_arm(&both->second, note, 300, both, 0));
    memmgr_free(both);
}

TEST_F(TimerQueue, ObjectsElsewhereAreNotForIt) {
    osal_timer here{};
    EXPECT_FALSE(timer_queue_arm(&here, note, 300, nullptr, 0));
    EXPECT_FALSE(timer_queue_disarm(&here));
    EXPECT_EQ(here.armed, 0U);
}

TEST_F(TimerQueue, EqualOnesFireInTheOrderInWhichTheyWereArmedLast) {
    std::vector<record *> records;
    for (std::uint32_t key = 0; key < 5; ++key) {
        records.push_back(make(key));
        EXPECT_TRUE(arm(records.back(), port_1_1, 0));
    }
    EXPECT_TRUE(arm(records[1], port_1_1, 0));
    EXPECT_TRUE(timer_queue_disarm(&records[3]->timer));
    while (timer_queue_count() != 0) event_base_loop(loop_base(), EVLOOP_ONCE);
    EXPECT_THAT(fired, ElementsAre(0, 2, 4, 1));
    memmgr_free(records[3]);
}

TEST_F(TimerQueue, AShorterDurationIsServedBeforeALongerOneArmedBefore) {
    record *later = make(1), *sooner = make(2);
    EXPECT_TRUE(arm(later, port_1_1, 300));
    EXPECT_TRUE(arm(sooner, port_1_1, 0));
    while (timer_queue_count() == 2) event_base_loop(loop_base(), EVLOOP_ONCE);
    EXPECT_THAT(fired, ElementsAre(2));
    memmgr_free(later);
}

// What is due at once is no reason to let others wait: each turn of the loop takes a portion.
TEST_F(TimerQueue, ManyThatAreDueTogetherAreServedInPortions) {
    constexpr std::uint32_t count = 1000;
    for (std::uint32_t key = 0; key < count; ++key) ASSERT_TRUE(arm(make(key), port_1_1, 0, take_time));
    std::size_t turns = 0, most = 0;
    while (timer_queue_count() != 0) {
        const std::size_t before = fired.size();
        event_base_loop(loop_base(), EVLOOP_ONCE);
        most = std::max(most, fired.size() - before);
        ++turns;
    }
    EXPECT_EQ(fired.size(), count);
    EXPECT_TRUE(std::is_sorted(fired.begin(), fired.end()));
    // A portion is a millisecond, looked at after each 32 of a tenth of one.
    EXPECT_LE(most, 32U);
    EXPECT_GE(turns, count / 32);
}

TEST_F(TimerQueue, ThousandsComeAndGoInAnyOrder) {
    std::vector<record *> open;
    std::uint32_t next = 0, random = 1;
    for (int step = 0; step < 100000; ++step) {
        random = random * 1664525 + 1013904223;
        if (open.size() < 2000 || random >> 31 == 0) {
            open.push_back(make(next++));
            ASSERT_TRUE(arm(open.back(), 5121 + random % 7));
            continue;
        }
        std::swap(open[random % open.size()], open.back());
        ASSERT_TRUE(timer_queue_disarm(&open.back()->timer));
        memmgr_free(open.back());
        open.pop_back();
    }
    ASSERT_EQ(timer_queue_count(), open.size());
    // The rest leaves in the order in which it came, port by port.
    for (std::uint32_t port = 5121; port < 5128; ++port) {
        fired.clear();
        while (timers_of(port).armed != 0) timer_queue_fire_oldest(row_of(port));
        EXPECT_TRUE(std::is_sorted(fired.begin(), fired.end())) << port;
    }
    EXPECT_EQ(timer_queue_count(), 0U);
}

}  // namespace
