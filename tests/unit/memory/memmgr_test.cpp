// SPDX-License-Identifier: Apache-2.0
// Memory for the relay's records: zeroed, counted as it is taken, refused past the budget.
#include "memmgr.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include "memory/memmgr_block.h"
#include "memory/memmgr_budget.h"

namespace {

using namespace ravo::platform;

constexpr std::size_t small_record = 24, small_block = 64;
constexpr std::size_t large_record = 1000, large_block = 1000 + alignof(std::max_align_t);

int times_short = 0;
std::vector<void *> freed;

struct Memory : testing::Test {
    Memory() {
        times_short = 0;
        freed.clear();
    }
    ~Memory() override {
        memmgr_on_short(nullptr);
        memmgr_on_free(nullptr);
        memmgr_set_budget(0);
        EXPECT_EQ(memmgr_used(), 0U) << "a block was not freed";
    }
};

TEST_F(Memory, IsZeroedAndAlignedForAnyRecordAlsoWhenItWasUsedBefore) {
    const unsigned char zeros[5000] = {};
    for (int round = 0; round < 2; ++round)
        for (const std::size_t size : {1, 24, 25, 88, 89, 500, 5000}) {
            void *memory = mfh_calloc(1, size);
            ASSERT_NE(memory, nullptr);
            EXPECT_EQ(std::memcmp(memory, zeros, size), 0) << size;
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(memory) % alignof(std::max_align_t), 0U) << size;
            std::memset(memory, 0xAA, size);
            memmgr_free(memory);
        }
}

TEST_F(Memory, FreeingNothingIsAllowed) {
    memmgr_free(nullptr);
    EXPECT_EQ(memmgr_used(), 0U);
}

TEST_F(Memory, CountsWhatEachBlockReallyTakes) {
    void *small = mfh_calloc(1, small_record);
    EXPECT_EQ(memmgr_used(), small_block);
    void *middle = mfh_calloc(1, small_record + 1);
    EXPECT_EQ(memmgr_used(), small_block + 128);
    void *large = mfh_calloc(10, large_record / 10);
    EXPECT_EQ(memmgr_used(), small_block + 128 + large_block);
    EXPECT_GE(memmgr_peak(), memmgr_used());
    memmgr_free(middle);
    memmgr_free(large);
    EXPECT_EQ(memmgr_used(), small_block);
    memmgr_free(small);
}

TEST_F(Memory, IsGivenUpToTheBudgetAndNotAByteMore) {
    const std::uint64_t before = memmgr_refused();
    memmgr_set_budget(small_block + large_block);
    EXPECT_EQ(memmgr_budget(), small_block + large_block);
    void *a = mfh_calloc(1, large_record);
    void *b = mfh_calloc(1, small_record);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(mfh_calloc(1, 1), nullptr);
    memmgr_free(a);
    EXPECT_EQ(mfh_calloc(1, large_record + 1), nullptr);
    a = mfh_calloc(1, large_record);
    EXPECT_NE(a, nullptr);
    EXPECT_EQ(memmgr_refused(), before + 2);
    memmgr_free(a);
    memmgr_free(b);
}

TEST_F(Memory, BudgetBelowWhatIsUsedRefusesUntilEnoughIsFreed) {
    void *a = mfh_calloc(1, large_record);
    memmgr_set_budget(100);
    EXPECT_EQ(mfh_calloc(1, 1), nullptr);
    memmgr_free(a);
    void *b = mfh_calloc(1, 1);
    EXPECT_NE(b, nullptr);
    memmgr_free(b);
}

TEST_F(Memory, ProductThatOverflowsIsRefused) {
    const std::size_t most = std::numeric_limits<std::size_t>::max();
    EXPECT_EQ(mfh_calloc(most, 2), nullptr);
    EXPECT_EQ(mfh_calloc(most / 2 + 1, 2), nullptr);
    EXPECT_EQ(mfh_calloc(1, most), nullptr);  // only with the block's own bytes
}

TEST_F(Memory, SaysWhenItIsShort) {
    memmgr_set_budget(160 * small_block);
    EXPECT_EQ(memmgr_reserve(), 10 * small_block);
    memmgr_on_short([] { ++times_short; });
    std::vector<void *> records;
    for (int i = 0; i < 150; ++i) records.push_back(mfh_calloc(1, small_record));
    EXPECT_EQ(times_short, 0);
    EXPECT_EQ(memmgr_short(), 0U);
    for (int i = 0; i < 3; ++i) records.push_back(mfh_calloc(1, small_record));
    EXPECT_EQ(times_short, 3);
    EXPECT_EQ(memmgr_short(), 3 * small_block);
    for (void *record : records) memmgr_free(record);
    EXPECT_EQ(memmgr_short(), 0U);
}

TEST_F(Memory, ReserveIsBounded) {
    memmgr_set_budget(std::size_t{1} << 30);
    EXPECT_EQ(memmgr_reserve(), 262144U);
    memmgr_set_budget(0);
    EXPECT_EQ(memmgr_reserve(), 0U);
    EXPECT_EQ(memmgr_short(), 0U);
}

// ---- Side rooms ----

TEST_F(Memory, SmallRecordsHaveASideRoomFoundFromAnyAddressInThem) {
    for (const std::size_t size : {std::size_t{8}, small_record, std::size_t{88}}) {
        auto *record = static_cast<unsigned char *>(mfh_calloc(1, size));
        auto *room = static_cast<unsigned char *>(memmgr_side_room(record));
        ASSERT_NE(room, nullptr);
        EXPECT_GE(room, record + size) << "the room is the platform's alone";
        EXPECT_EQ(memmgr_side_room(record + size - 1), room);
        const unsigned char zeros[side_room_size] = {};
        EXPECT_EQ(std::memcmp(room, zeros, sizeof zeros), 0);
        EXPECT_EQ(memmgr_side_at(memmgr_side_number(room)), room);
        EXPECT_NE(memmgr_side_number(room), 0U);
        std::memset(room, 0xAA, side_room_size);
        memmgr_free(record);
    }
}

TEST_F(Memory, LargeRecordsAndOtherMemoryHaveNoSideRoom) {
    void *large = mfh_calloc(1, 89);
    EXPECT_EQ(memmgr_side_room(large), nullptr);
    memmgr_free(large);
    int here = 0;
    EXPECT_EQ(memmgr_side_room(&here), nullptr);
    EXPECT_EQ(memmgr_side_room(nullptr), nullptr);
    void *node = memmgr_take_node(512);
    EXPECT_EQ(memmgr_side_room(node), nullptr);
    memmgr_give_node(node);
}

TEST_F(Memory, WhoUsesSideRoomsHearsOfRecordsThatAreFreed) {
    memmgr_on_free([](void *room) { freed.push_back(room); });
    void *small = mfh_calloc(1, small_record);
    void *room = memmgr_side_room(small);
    void *large = mfh_calloc(1, large_record);
    memmgr_free(small);
    memmgr_free(large);
    EXPECT_EQ(freed, std::vector<void *>{room});
}

// ---- Nodes ----

TEST_F(Memory, NodesCountAgainstTheBudgetToo) {
    memmgr_set_budget(1024 + 512);
    void *leaf = memmgr_take_node(512);
    void *inner = memmgr_take_node(1024);
    ASSERT_NE(leaf, nullptr);
    ASSERT_NE(inner, nullptr);
    EXPECT_EQ(memmgr_used(), 1024U + 512U);
    EXPECT_EQ(memmgr_take_node(512), nullptr);
    memmgr_give_node(leaf);
    memmgr_give_node(inner);
}

}  // namespace
