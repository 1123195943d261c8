// SPDX-License-Identifier: Apache-2.0
// Blocks of the slab: apart from each other, found from any address in them, given back when they are free.
#include "memory/slab.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace ravo::platform;

// The sanitizer has memory and addresses of its own for every block, so that nothing is told about them.
#ifdef RAVO_ADDRESS_SANITIZER
constexpr bool memory_is_ours_alone = false;
#else
constexpr bool memory_is_ours_alone = true;
#endif

// Bytes of this process that are memory now.
std::size_t resident_now() {
    std::ifstream file("/proc/self/statm");
    std::size_t all = 0, resident = 0;
    file >> all >> resident;
    return resident * 4096;
}

TEST(Slab, BlocksAreApartAndAligned) {
    std::vector<std::pair<unsigned char *, std::size_t>> blocks;
    for (int i = 0; i < 3000; ++i)
        for (std::size_t kind = 0; kind < slab_sizes; ++kind) {
            auto *block = static_cast<unsigned char *>(slab_take(kind));
            ASSERT_NE(block, nullptr);
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % slab_line, 0U);
            blocks.emplace_back(block, slab_size(kind));
        }
    std::sort(blocks.begin(), blocks.end());
    for (std::size_t i = 1; i < blocks.size(); ++i)
        ASSERT_LE(blocks[i - 1].first + blocks[i - 1].second, blocks[i].first);
    for (const auto &[block, size] : blocks) {
        ASSERT_TRUE(slab_has(block) && slab_has(block + size - 1));
        ASSERT_EQ(slab_size_at(block + size - 1), size);
        ASSERT_EQ(slab_line_at(slab_number(block + 63)), block);
        slab_give(block);
    }
}

TEST(Slab, AddressesElsewhereAreNotItsOwn) {
    int here = 0;
    EXPECT_FALSE(slab_has(&here));
    EXPECT_FALSE(slab_has(nullptr));
    EXPECT_FALSE(slab_has(reinterpret_cast<void *>(UINTPTR_MAX)));
}

TEST(Slab, BlocksKeepTheirBytesWhileOthersComeAndGo) {
    struct held {
        unsigned char *block;
        std::size_t size;
        unsigned char mark;
    };
    std::mt19937 random(1);
    std::vector<held> blocks;
    for (int step = 0; step < 200000; ++step) {
        if (blocks.empty() || random() % 100 < (step / 20000 % 2 == 0 ? 60U : 40U)) {
            const std::size_t kind = random() % slab_sizes;
            const auto mark = static_cast<unsigned char>(random());
            auto *block = static_cast<unsigned char *>(slab_take(kind));
            ASSERT_NE(block, nullptr);
            std::memset(block, mark, slab_size(kind));
            blocks.push_back({block, slab_size(kind), mark});
        } else {
            std::swap(blocks[random() % blocks.size()], blocks.back());
            const held last = blocks.back();
            blocks.pop_back();
            ASSERT_EQ(std::count(last.block, last.block + last.size, last.mark), static_cast<int>(last.size));
            slab_give(last.block);
        }
    }
    for (const held &one : blocks) slab_give(one.block);
}

TEST(Slab, MemoryGoesBackToTheSystem) {
    if (!memory_is_ours_alone) GTEST_SKIP();
    const std::size_t before = resident_now();
    std::vector<void *> blocks(500000);
    for (void *&block : blocks) {
        block = slab_take(0);
        ASSERT_NE(block, nullptr);
        std::memset(block, 1, slab_size(0));
    }
    const std::size_t full = slab_resident();
    EXPECT_GE(full, blocks.size() * slab_size(0));
    EXPECT_LE(full, blocks.size() * slab_size(0) * 21 / 20);
    EXPECT_GE(resident_now(), before + blocks.size() * slab_size(0));
    for (void *block : blocks) slab_give(block);
    EXPECT_LE(slab_resident(), std::size_t{1} << 20);
    EXPECT_LE(resident_now(), before + (std::size_t{6} << 20)) << "with the table of blocks itself";
    // And is taken again.
    for (void *&block : blocks) ASSERT_NE(block = slab_take(0), nullptr);
    for (void *block : blocks) slab_give(block);
}

// A region is reserved once, so these are tried in processes of their own.

[[noreturn]] void fill_a_small_region() {
    slab_reserve(std::size_t{4} << 20);
    std::size_t count = 0;
    while (slab_take(0) != nullptr) ++count;
    const bool other = slab_take(3) != nullptr;
    std::exit(count == (std::size_t{4} << 20) / 64 && !other ? 0 : 1);
}

TEST(SlabDeathTest, AFullRegionIsToldAndNotLeft) {
    EXPECT_EXIT(fill_a_small_region(), testing::ExitedWithCode(0), "");
}

[[noreturn]] void take_under_a_limit_of_addresses() {
    const rlimit limit{.rlim_cur = std::size_t{256} << 20, .rlim_max = RLIM_INFINITY};
    setrlimit(RLIMIT_AS, &limit);
    const bool taken = slab_take(0) != nullptr;
    const std::vector<char> others(std::size_t{64} << 20);
    std::exit(taken && others.back() == 0 ? 0 : 1);
}

TEST(SlabDeathTest, ALimitOfAddressesIsMostlyLeftToOthers) {
    if (!memory_is_ours_alone) GTEST_SKIP();
    EXPECT_EXIT(take_under_a_limit_of_addresses(), testing::ExitedWithCode(0), "");
}

}  // namespace
