// Timers: once each, by the address of their object, never for a deleted one.
#include <event2/event.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <vector>

#include "base/loop.h"
#include "osal.h"
#include "osal/osal_events.h"

namespace {

using ravo::platform::loop_base;
using ravo::platform::timers_count;
using testing::ElementsAre;
using testing::IsEmpty;

std::vector<int> fired;

struct alarm_record {
    osal_timer timer{};
    int number = 0;
    std::uintptr_t armed_in_callback = 99;
    osal_timer *delete_too = nullptr;
    bool again = false;
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

struct Timer : testing::Test {
    Timer() { fired.clear(); }
    ~Timer() override {
        ravo::platform::timers_free();
        ravo::platform::loop_free();
    }
};

TEST_F(Timer, FiresOnceWithTheMarkClearedBefore) {
    alarm_record record;
    record.number = 1;
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_EQ(arm(record, 1), 0);
    EXPECT_NE(record.timer.armed, 0U);
    serve_all();
    const auto waited = std::chrono::steady_clock::now() - begin;
    EXPECT_THAT(fired, ElementsAre(1));
    EXPECT_EQ(record.armed_in_callback, 0U);
    EXPECT_EQ(record.timer.armed, 0U);
    // Libevent rounds by less than a hundredth of a second.
    EXPECT_GE(waited, std::chrono::milliseconds(990));
    serve_ready();
    EXPECT_THAT(fired, ElementsAre(1));
}

TEST_F(Timer, OnAScheduledObjectIsReplaced) {
    alarm_record first;
    first.number = 1;
    alarm_record second;
    second.number = 2;
    ASSERT_EQ(arm(first, 0), 0);
    // The same object, with a callback argument of its own and a later time.
    ASSERT_EQ(OSAL_ZEBOS_Create_Sec_Once_Timer(&first.timer, "alarm", on_alarm, 3, 1, &second), 0);
    EXPECT_EQ(timers_count(), 1U);
    serve_ready();
    EXPECT_THAT(fired, IsEmpty());
    serve_all();
    EXPECT_THAT(fired, ElementsAre(2));
}

TEST_F(Timer, DeletedNeverFires) {
    alarm_record kept;
    kept.number = 1;
    auto dead = std::make_unique<alarm_record>();
    dead->number = 2;
    ASSERT_EQ(arm(*dead, 0), 0);
    ASSERT_EQ(arm(kept, 0), 0);
    OSAL_ZEBOS_Delete_Timer(&dead->timer);
    EXPECT_EQ(dead->timer.armed, 0U);
    dead.reset();
    serve_all();
    EXPECT_THAT(fired, ElementsAre(1));
}

TEST_F(Timer, DeletedByAnotherThatExpiredWithItNeverFires) {
    alarm_record first;
    first.number = 1;
    alarm_record second;
    second.number = 2;
    // Whichever of the two is served first deletes the other.
    first.delete_too = &second.timer;
    second.delete_too = &first.timer;
    ASSERT_EQ(arm(first, 0), 0);
    ASSERT_EQ(arm(second, 0), 0);
    serve_all();
    EXPECT_EQ(fired.size(), 1U);
}

TEST_F(Timer, MayBeArmedAgainInItsCallback) {
    alarm_record record;
    record.number = 1;
    record.again = true;
    ASSERT_EQ(arm(record, 0), 0);
    serve_all();
    EXPECT_THAT(fired, ElementsAre(1, 1));
}

TEST_F(Timer, IsKnownByItsAddressNotByItsContents) {
    alarm_record armed;
    armed.number = 1;
    alarm_record other;
    other.number = 2;
    ASSERT_EQ(arm(armed, 0), 0);
    std::memcpy(&other.timer, &armed.timer, sizeof(other.timer));
    // Looks armed, but was never scheduled: left as it is.
    OSAL_ZEBOS_Delete_Timer(&other.timer);
    EXPECT_NE(other.timer.armed, 0U);
    // Looks unarmed, but is scheduled: found by its address.
    armed.timer.armed = 0;
    OSAL_ZEBOS_Delete_Timer(&armed.timer);
    EXPECT_EQ(timers_count(), 0U);
    serve_ready();
    EXPECT_THAT(fired, IsEmpty());
}

TEST_F(Timer, OfManyDurationsFireInOrderOfTheirTimes) {
    // More durations than there are queues of equal timers.
    std::vector<alarm_record> records(300);
    for (std::size_t i = 0; i < records.size(); ++i) {
        records[i].number = static_cast<int>(i);
        ASSERT_EQ(arm(records[i], static_cast<std::uint32_t>(i < 2 ? i : 100 + i)), 0);
    }
    while (fired.size() < 2) event_base_loop(loop_base(), EVLOOP_ONCE);
    EXPECT_THAT(fired, ElementsAre(0, 1));
    EXPECT_EQ(timers_count(), 298U);
}

TEST_F(Timer, LongestDurationIsTaken) {
    alarm_record record;
    ASSERT_EQ(arm(record, UINT32_MAX), 0);
    serve_ready();
    EXPECT_THAT(fired, IsEmpty());
    OSAL_ZEBOS_Delete_Timer(&record.timer);
    EXPECT_EQ(timers_count(), 0U);
}

TEST_F(Timer, TensOfThousandsAreArmedReplacedAndDeleted) {
    std::vector<osal_timer> timers(50000);
    for (osal_timer &timer : timers)
        ASSERT_EQ(OSAL_ZEBOS_Create_Sec_Once_Timer(&timer, "xid", on_alarm, 300, 1, nullptr), 0);
    for (osal_timer &timer : timers)
        ASSERT_EQ(OSAL_ZEBOS_Create_Sec_Once_Timer(&timer, "xid", on_alarm, 300, 1, nullptr), 0);
    EXPECT_EQ(timers_count(), timers.size());
    for (osal_timer &timer : timers) OSAL_ZEBOS_Delete_Timer(&timer);
    EXPECT_EQ(timers_count(), 0U);
}

}  // namespace
