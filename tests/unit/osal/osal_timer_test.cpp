// SPDX-License-Identifier: Apache-2.0
// Timers: once each, by the address of their object, never for a deleted one; alike for objects in the daemon's memory,
// which are served by queues, and for any others.
#include <event2/event.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <vector>

#include "base/loop.h"
#include "memmgr.h"
#include "osal.h"
#include "osal/osal_events.h"
#include "osal/timer_queue.h"

namespace {

using ravo::platform::loop_base;
using ravo::platform::timer_queue_count;
using ravo::platform::timers_count;
using testing::ElementsAre;
using testing::IsEmpty;

std::vector<int> fired;

struct alarm_record {
    osal_timer timer;
    int number;
    std::uintptr_t armed_in_callback;
    osal_timer *delete_too;
    bool again;
};

void on_alarm(void *arg);

int arm(alarm_record &record, std::uint32_t seconds) {
    return OSAL_ZEBOS_Create_Sec_Once_Timer(&record.timer, "alarm", on_alarm, seconds, 1, &record);
}

void on_alarm(void *arg) {
    auto *record = static_cast<alarm_record *>(arg);
    fired.push_back(record->number);
    record->armed_in_callback = record->timer.armed;
    if (record->delete_too != nullptr) OSAL_ZEBOS_Delete_Timer(record->delete_too);
    if (record->again) {
        record->again = false;
        EXPECT_EQ(arm(*record, 0), 0);
    }
}

// Serves the loop until no timer is left; a test with a timer that never fires runs into the program's time limit.
void serve_all() {
    while (timers_count() != 0) event_base_loop(loop_base(), EVLOOP_ONCE);
}

void serve_ready() {
    event_base_loop(loop_base(), EVLOOP_NONBLOCK);
}

enum class place { daemons_memory, elsewhere };

struct release {
    place where;
    void operator()(alarm_record *record) const {
        if (where == place::daemons_memory)
            memmgr_free(record);
        else
            delete record;
    }
};
using record_ptr = std::unique_ptr<alarm_record, release>;

struct Timer : testing::TestWithParam<place> {
    Timer() { fired.clear(); }
    ~Timer() override {
        ravo::platform::timers_free();
        ravo::platform::loop_free();
    }
    static record_ptr make(int number) {
        auto *made = GetParam() == place::daemons_memory
                         ? static_cast<alarm_record *>(mfh_calloc(1, sizeof(alarm_record)))
                         : new alarm_record{};
        made->number = number;
        made->armed_in_callback = 99;
        return {made, release{GetParam()}};
    }
};

INSTANTIATE_TEST_SUITE_P(Places, Timer, testing::Values(place::daemons_memory, place::elsewhere));

TEST_P(Timer, FiresOnceWithTheMarkClearedBefore) {
    const record_ptr record = make(1);
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_EQ(arm(*record, 1), 0);
    EXPECT_EQ(timer_queue_count(), GetParam() == place::daemons_memory ? 1U : 0U);
    EXPECT_NE(record->timer.armed, 0U);
    serve_all();
    const auto waited = std::chrono::steady_clock::now() - begin;
    EXPECT_THAT(fired, ElementsAre(1));
    EXPECT_EQ(record->armed_in_callback, 0U);
    EXPECT_EQ(record->timer.armed, 0U);
    // Clocks are read in steps of less than a hundredth of a second.
    EXPECT_GE(waited, std::chrono::milliseconds(990));
    serve_ready();
    EXPECT_THAT(fired, ElementsAre(1));
}

TEST_P(Timer, OnAScheduledObjectIsReplaced) {
    const record_ptr first = make(1), second = make(2);
    ASSERT_EQ(arm(*first, 0), 0);
    // The same object, with a callback argument of its own and a later time.
    ASSERT_EQ(OSAL_ZEBOS_Create_Sec_Once_Timer(&first->timer, "alarm", on_alarm, 1, 1, second.get()), 0);
    EXPECT_EQ(timers_count(), 1U);
    serve_ready();
    EXPECT_THAT(fired, IsEmpty());
    serve_all();
    EXPECT_THAT(fired, ElementsAre(2));
}

TEST_P(Timer, DeletedNeverFires) {
    const record_ptr kept = make(1);
    record_ptr dead = make(2);
    ASSERT_EQ(arm(*dead, 0), 0);
    ASSERT_EQ(arm(*kept, 0), 0);
    OSAL_ZEBOS_Delete_Timer(&dead->timer);
    EXPECT_EQ(dead->timer.armed, 0U);
    dead.reset();
    serve_all();
    EXPECT_THAT(fired, ElementsAre(1));
}

TEST_P(Timer, DeletedByAnotherThatExpiredWithItNeverFires) {
    const record_ptr first = make(1), second = make(2);
    // Whichever of the two is served first deletes the other.
    first->delete_too = &second->timer;
    second->delete_too = &first->timer;
    ASSERT_EQ(arm(*first, 0), 0);
    ASSERT_EQ(arm(*second, 0), 0);
    serve_all();
    EXPECT_EQ(fired.size(), 1U);
}

TEST_P(Timer, MayBeArmedAgainInItsCallback) {
    const record_ptr record = make(1);
    record->again = true;
    ASSERT_EQ(arm(*record, 0), 0);
    serve_all();
    EXPECT_THAT(fired, ElementsAre(1, 1));
}

TEST_P(Timer, IsKnownByItsAddressNotByItsContents) {
    const record_ptr armed = make(1), other = make(2);
    ASSERT_EQ(arm(*armed, 0), 0);
    std::memcpy(&other->timer, &armed->timer, sizeof(other->timer));
    // Looks armed, but was never scheduled: left as it is.
    OSAL_ZEBOS_Delete_Timer(&other->timer);
    EXPECT_NE(other->timer.armed, 0U);
    // Looks unarmed, but is scheduled: found by its address.
    armed->timer.armed = 0;
    OSAL_ZEBOS_Delete_Timer(&armed->timer);
    EXPECT_EQ(timers_count(), 0U);
    serve_ready();
    EXPECT_THAT(fired, IsEmpty());
}

TEST_P(Timer, OfManyDurationsFireInOrderOfTheirTimes) {
    // More durations than there are queues; the longest first.
    std::vector<record_ptr> records;
    for (int i = 299; i >= 0; --i) {
        records.push_back(make(i));
        ASSERT_EQ(arm(*records.back(), static_cast<std::uint32_t>(i < 2 ? i : 100 + i)), 0);
    }
    while (fired.size() < 2) event_base_loop(loop_base(), EVLOOP_ONCE);
    EXPECT_THAT(fired, ElementsAre(0, 1));
    EXPECT_EQ(timers_count(), 298U);
    for (const record_ptr &record : records) OSAL_ZEBOS_Delete_Timer(&record->timer);
    EXPECT_EQ(timers_count(), 0U);
}

TEST_P(Timer, LongestDurationIsTaken) {
    const record_ptr record = make(1);
    ASSERT_EQ(arm(*record, UINT32_MAX), 0);
    serve_ready();
    EXPECT_THAT(fired, IsEmpty());
    OSAL_ZEBOS_Delete_Timer(&record->timer);
    EXPECT_EQ(timers_count(), 0U);
}

TEST_P(Timer, TensOfThousandsAreArmedReplacedAndDeleted) {
    std::vector<record_ptr> records;
    for (int i = 0; i < 50000; ++i) records.push_back(make(i));
    for (int round = 0; round < 2; ++round)
        for (const record_ptr &record : records) ASSERT_EQ(arm(*record, 300), 0);
    EXPECT_EQ(timers_count(), records.size());
    for (const record_ptr &record : records) OSAL_ZEBOS_Delete_Timer(&record->timer);
    EXPECT_EQ(timers_count(), 0U);
}

}  // namespace
