// SPDX-License-Identifier: Apache-2.0
// The transaction port map and its timers.
#include "ravo_db_xid.h"

#include "relay_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using RavoDbXid = Relay;
using RavoDbXidUnstarted = UnstartedRelay;

xid_entry entry_of(std::uint32_t xid, std::uint32_t module = 0, std::uint32_t port = 0) {
    xid_entry entry{};
    entry.xid = xid;
    entry.module = module;
    entry.port = port;
    return entry;
}

int update(const xid_entry &entry) {
    return ravo_db_xid_update(&entry);
}

// The stored entry as "module/port", "none" when there is none.
std::string stored(std::uint32_t xid) {
    xid_entry entry = entry_of(xid);
    if (ravo_db_xid_get(&entry) == 0) return "none";
    return std::to_string(entry.module) + "/" + std::to_string(entry.port);
}

std::vector<std::uint32_t> walk() {
    std::vector<std::uint32_t> xids;
    xid_entry entry;
    for (int found = ravo_db_xid_get_first(&entry); found != 0; found = ravo_db_xid_get_next(&entry))
        xids.push_back(entry.xid);
    return xids;
}

// ---- Order ----

TEST_F(RavoDbXid, ComparesUnsigned) {
    const xid_entry small = entry_of(1);
    const xid_entry large = entry_of(4294967295u);
    EXPECT_EQ(ravo_db_xid_compare(&small, &large), -1);
    EXPECT_EQ(ravo_db_xid_compare(&large, &small), 1);
    EXPECT_EQ(ravo_db_xid_compare(&large, &large), 0);
    EXPECT_EQ(ravo_db_xid_compare(nullptr, &large), -1);
    EXPECT_EQ(ravo_db_xid_compare(&large, nullptr), -1);
    EXPECT_EQ(ravo_db_xid_compare(nullptr, nullptr), -1);
}

TEST_F(RavoDbXid, OneComesBeforeTheLargestNumber) {
    for (const std::uint32_t xid : {4294967295u, 0x80000000u, 1u, 0u}) EXPECT_EQ(update(entry_of(xid)), 1);
    EXPECT_THAT(walk(), ElementsAre(0u, 1u, 0x80000000u, 4294967295u));
}

// ---- Guards ----

TEST_F(RavoDbXidUnstarted, WithoutATreeEverythingFails) {
    xid_entry entry = entry_of(1);
    EXPECT_EQ(ravo_db_xid_update(&entry), 0);
    EXPECT_EQ(ravo_db_xid_get(&entry), 0);
    EXPECT_EQ(ravo_db_xid_get_first(&entry), 0);
    EXPECT_EQ(ravo_db_xid_get_next(&entry), 0);
    EXPECT_EQ(ravo_db_xid_go_on(&entry), 0);
    EXPECT_EQ(ravo_db_xid_delete(&entry), 0);
    EXPECT_EQ(ravo_db_xid_expire(&entry), 0);
    EXPECT_THAT(fake::printed, IsEmpty());
}

TEST_F(RavoDbXidUnstarted, GetNextAsksForTheInterfaceTree) {
    ravo_db_xid_init();
    update(entry_of(1));
    update(entry_of(2));
    xid_entry entry = entry_of(1);
    EXPECT_EQ(ravo_db_xid_get_next(&entry), 0);
    EXPECT_EQ(ravo_db_xid_get(&entry), 1);
    ravo_db_xid_exit();
}

TEST_F(RavoDbXid, WithoutAnArgumentEverythingFails) {
    EXPECT_EQ(ravo_db_xid_update(nullptr), 0);
    EXPECT_EQ(ravo_db_xid_get(nullptr), 0);
    EXPECT_EQ(ravo_db_xid_get_first(nullptr), 0);
    EXPECT_EQ(ravo_db_xid_get_next(nullptr), 0);
    EXPECT_EQ(ravo_db_xid_go_on(nullptr), 0);
    EXPECT_EQ(ravo_db_xid_delete(nullptr), 0);
    EXPECT_EQ(ravo_db_xid_expire(nullptr), 0);
    update(entry_of(10));  // nor with something to go on to
    EXPECT_EQ(ravo_db_xid_go_on(nullptr), 0);
    EXPECT_EQ(ravo_db_xid_get_next(nullptr), 0);
    EXPECT_EQ(ravo_db_xid_delete(nullptr), 0);
    EXPECT_THAT(walk(), ElementsAre(10u));
}

// ---- Walk ----

TEST_F(RavoDbXid, GetFirstClearsTheBufferOfAnEmptyMap) {
    xid_entry entry = entry_of(7, 8, 9);
    EXPECT_EQ(ravo_db_xid_get_first(&entry), 0);
    EXPECT_EQ(entry.xid, 0u);
    EXPECT_EQ(entry.module, 0u);
    EXPECT_EQ(entry.port, 0u);
}

TEST_F(RavoDbXid, GetNextOfTheLastAndOfAnUnknownNumberFails) {
    update(entry_of(10));
    update(entry_of(20));
    xid_entry entry = entry_of(20);
    EXPECT_EQ(ravo_db_xid_get_next(&entry), 0);
    entry = entry_of(15);
    EXPECT_EQ(ravo_db_xid_get_next(&entry), 0);
    entry = entry_of(10);
    EXPECT_EQ(ravo_db_xid_get_next(&entry), 1);
    EXPECT_EQ(entry.xid, 20u);
}

TEST_F(RavoDbXid, AWalkGoesOnBehindAnEntryThatHasGone) {
    for (const std::uint32_t xid : {10u, 20u, 30u}) update(entry_of(xid, 2, 3));
    xid_entry entry = entry_of(15);
    EXPECT_EQ(ravo_db_xid_go_on(&entry), 1);
    EXPECT_EQ(entry.xid, 20u);
    EXPECT_EQ(entry.module, 2u);
    EXPECT_EQ(ravo_db_xid_delete(&entry), 1);
    EXPECT_EQ(ravo_db_xid_go_on(&entry), 1);
    EXPECT_EQ(entry.xid, 30u);
    EXPECT_EQ(ravo_db_xid_go_on(&entry), 0);
    EXPECT_EQ(entry.xid, 30u);
}

// ---- Update and expiry ----

TEST_F(RavoDbXid, AnEntryIsStoredWithOneTimerOnItself) {
    EXPECT_EQ(update(entry_of(0x12345678, 2, 33)), 1);
    EXPECT_EQ(stored(0x12345678), "2/33");
    EXPECT_THAT(fake::timer_calls, ElementsAre("create ravo 300 s, repeat 1"));
    const std::vector<fake::timer> timers = fake::timers();
    ASSERT_EQ(timers.size(), 1u);
    EXPECT_EQ(timers[0].due, 300u);
    // The timer's argument is the stored entry, which holds the timer's object.
    EXPECT_EQ(&static_cast<xid_entry *>(timers[0].arg)->expiry, timers[0].object);
    EXPECT_EQ(static_cast<xid_entry *>(timers[0].arg)->xid, 0x12345678u);
}

TEST_F(RavoDbXid, AnEntryDisappearsAfterThreeHundredSeconds) {
    update(entry_of(1, 1, 1));
    fake::advance(299);
    EXPECT_EQ(stored(1), "1/1");
    fake::advance(1);
    EXPECT_EQ(stored(1), "none");
    EXPECT_EQ(fake::blocks_used(), 0u);
    EXPECT_THAT(fake::timers(), IsEmpty());
}

TEST_F(RavoDbXid, EachEntryHasALifeOfItsOwn) {
    update(entry_of(1));
    fake::advance(100);
    update(entry_of(2));
    fake::advance(200);
    EXPECT_THAT(walk(), ElementsAre(2u));
    fake::advance(100);
    EXPECT_THAT(walk(), IsEmpty());
}

TEST_F(RavoDbXid, TwoRequestsOfOneTransactionLeaveTheLaterPort) {
    update(entry_of(1, 1, 5));
    update(entry_of(1, 2, 7));
    EXPECT_THAT(walk(), ElementsAre(1u));
    EXPECT_EQ(stored(1), "2/7");
    EXPECT_EQ(fake::blocks_used(), 1u);
}

TEST_F(RavoDbXid, ARefreshOfAFreshEntryArmsASecondTimerOnTheSameObject) {
    update(entry_of(1));
    fake::advance(200);
    EXPECT_EQ(update(entry_of(1)), 1);
    EXPECT_THAT(fake::timer_calls, ElementsAre("create ravo 300 s, repeat 1", "replace ravo 300 s, repeat 1"));
    fake::advance(299);  // 300 seconds from the refresh count, not from the first request
    EXPECT_THAT(walk(), ElementsAre(1u));
    fake::advance(1);
    EXPECT_THAT(walk(), IsEmpty());
}

TEST_F(RavoDbXid, ARefreshWithAnArmedMarkDeletesTheTimerFirst) {
    update(entry_of(1));
    xid_entry copy = entry_of(1);
    ASSERT_EQ(ravo_db_xid_get(&copy), 1);
    ASSERT_NE(copy.expiry.armed, 0u);
    EXPECT_EQ(ravo_db_xid_update(&copy), 1);
    EXPECT_THAT(fake::timer_calls, ElementsAre("create ravo 300 s, repeat 1", "delete", "create ravo 300 s, repeat 1"));
    EXPECT_EQ(fake::timers().size(), 1u);
}

TEST_F(RavoDbXid, ANewEntryWithAnArmedMarkDeletesATimerFirst) {
    xid_entry entry = entry_of(1);
    entry.expiry.armed = 1;
    EXPECT_EQ(ravo_db_xid_update(&entry), 1);
    EXPECT_THAT(fake::timer_calls, ElementsAre("delete", "create ravo 300 s, repeat 1"));
    EXPECT_EQ(ravo_db_xid_get_first(&entry), 1);
    EXPECT_EQ(entry.xid, 1u);
}

TEST_F(RavoDbXid, UpdateFailsWithoutMemory) {
    fake::script(fake::op::calloc);
    EXPECT_EQ(update(entry_of(1)), 0);
    EXPECT_THAT(walk(), IsEmpty());
    EXPECT_THAT(fake::timers(), IsEmpty());
}

TEST_F(RavoDbXid, AnEntryThatCouldNotExpireIsNotKept) {
    fake::script(fake::op::create_timer);
    EXPECT_EQ(update(entry_of(1)), 0);
    EXPECT_THAT(walk(), IsEmpty());
    EXPECT_EQ(fake::blocks_used(), 0u);
}

TEST_F(RavoDbXid, ARefreshedEntryThatCouldNotExpireGoesWithItsEarlierTimer) {
    update(entry_of(1));
    update(entry_of(2));
    fake::script(fake::op::create_timer);
    EXPECT_EQ(update(entry_of(1)), 0);
    EXPECT_THAT(walk(), ElementsAre(2u));
    EXPECT_EQ(fake::timers().size(), 1u);
    EXPECT_EQ(fake::blocks_used(), 1u);
    fake::advance(300);  // nothing fires for the entry that is gone
    EXPECT_THAT(walk(), IsEmpty());
}

TEST_F(RavoDbXid, ARefreshedEntryThatCouldNotExpireAndNotBeRemovedStays) {
    update(entry_of(1, 3, 4));
    fake::script(fake::op::create_timer);
    fake::script(fake::op::avl_remove);
    EXPECT_EQ(update(entry_of(1, 5, 6)), 0);
    EXPECT_EQ(stored(1), "5/6");
    EXPECT_THAT(fake::timers(), IsEmpty());
}

TEST_F(RavoDbXid, UpdateSucceedsWhateverTheTreeAnswers) {
    fake::script(fake::op::avl_insert);
    EXPECT_EQ(update(entry_of(1)), 1);
    EXPECT_THAT(walk(), IsEmpty());
    EXPECT_THAT(fake::timers(), IsEmpty());
}

// ---- Views ----

TEST_F(RavoDbXid, AViewShowsTheStoredEntryAndFinishingTakesItOut) {
    update(entry_of(1, 3, 4));
    update(entry_of(2, 5, 6));
    EXPECT_EQ(ravo_db_xid_view(3), nullptr);
    const xid_entry *entry = ravo_db_xid_view(2);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->module, 5u);
    ravo_db_xid_finish(entry);
    EXPECT_EQ(ravo_db_xid_view(2), nullptr);
    EXPECT_THAT(walk(), ElementsAre(1u));
    EXPECT_EQ(fake::timers().size(), 1u);
}

TEST_F(RavoDbXid, AFinishedEntryThatTheTreeKeepsHasNoTimer) {
    update(entry_of(1, 3, 4));
    fake::script(fake::op::avl_remove);
    ravo_db_xid_finish(ravo_db_xid_view(1));
    EXPECT_EQ(stored(1), "3/4");
    EXPECT_THAT(fake::timers(), IsEmpty());
}

// ---- Delete ----

TEST_F(RavoDbXid, DeletingAnUnknownTransactionSucceeds) {
    const xid_entry entry = entry_of(1);
    EXPECT_EQ(ravo_db_xid_delete(&entry), 1);
    EXPECT_THAT(fake::timer_calls, IsEmpty());
}

TEST_F(RavoDbXid, DeleteTakesTheTimerToo) {
    update(entry_of(1));
    update(entry_of(2));
    const xid_entry entry = entry_of(1);
    EXPECT_EQ(ravo_db_xid_delete(&entry), 1);
    EXPECT_THAT(walk(), ElementsAre(2u));
    EXPECT_EQ(fake::timers().size(), 1u);
    EXPECT_EQ(fake::blocks_used(), 1u);
    EXPECT_EQ(fake::timer_calls.back(), "delete");
}

TEST_F(RavoDbXid, AnEntryThatCannotBeRemovedStaysWithoutItsTimer) {
    update(entry_of(1, 3, 4));
    fake::script(fake::op::avl_remove);
    const xid_entry entry = entry_of(1);
    EXPECT_EQ(ravo_db_xid_delete(&entry), 0);
    EXPECT_EQ(stored(1), "3/4");
    EXPECT_THAT(fake::timers(), IsEmpty());
}

TEST_F(RavoDbXid, TheExpiredTimerIsNotDeletedAgain) {
    update(entry_of(1));
    fake::advance(300);
    EXPECT_THAT(fake::timer_calls, ElementsAre("create ravo 300 s, repeat 1"));
}

}  // namespace
