// Memory for the relay's records: zeroed, counted, refused past the budget.
#include "memmgr.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>

#include "memory/memmgr_budget.h"

namespace {

using ravo::platform::memmgr_peak;
using ravo::platform::memmgr_set_budget;
using ravo::platform::memmgr_used;

constexpr std::size_t per_block = alignof(std::max_align_t);

struct Memory : testing::Test {
    ~Memory() override {
        memmgr_set_budget(0);
        EXPECT_EQ(memmgr_used(), 0U) << "a block was not freed";
    }
};

TEST_F(Memory, IsZeroedAndAlignedForAnyRecord) {
    void *memory = mfh_calloc(3, 7);
    ASSERT_NE(memory, nullptr);
    const unsigned char zeros[21] = {};
    EXPECT_EQ(std::memcmp(memory, zeros, sizeof(zeros)), 0);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(memory) % alignof(std::max_align_t), 0U);
    memmgr_free(memory);
}

TEST_F(Memory, FreeingNothingIsAllowed) {
    memmgr_free(nullptr);
    EXPECT_EQ(memmgr_used(), 0U);
}

TEST_F(Memory, CountsEachBlockWithItsOwnBytes) {
    void *a = mfh_calloc(1, 100);
    void *b = mfh_calloc(2, 50);
    EXPECT_EQ(memmgr_used(), 2 * (100 + per_block));
    EXPECT_GE(memmgr_peak(), 2 * (100 + per_block));
    memmgr_free(a);
    EXPECT_EQ(memmgr_used(), 100 + per_block);
    memmgr_free(b);
}

TEST_F(Memory, IsGivenUpToTheBudgetAndNotAByteMore) {
    memmgr_set_budget(2 * (64 + per_block));
    void *a = mfh_calloc(1, 64);
    void *b = mfh_calloc(1, 64);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(mfh_calloc(1, 1), nullptr);
    memmgr_free(a);
    EXPECT_EQ(mfh_calloc(1, 65), nullptr);
    a = mfh_calloc(1, 64);
    EXPECT_NE(a, nullptr);
    memmgr_free(a);
    memmgr_free(b);
}

TEST_F(Memory, BudgetBelowWhatIsUsedRefusesUntilEnoughIsFreed) {
    void *a = mfh_calloc(1, 1000);
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

}  // namespace
