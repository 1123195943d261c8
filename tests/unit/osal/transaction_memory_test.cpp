// SPDX-License-Identifier: Apache-2.0
// What open transactions really take of the process's memory.
#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>

#include "base/loop.h"
#include "memmgr.h"
#include "memory/memmgr_budget.h"
#include "osal/osal_events.h"
#include "osal/timer_queue.h"

namespace {

using namespace ravo::platform;

constexpr std::uint32_t port_1_1 = 5121;

struct tracked {
    std::uint32_t key;
    std::uint32_t module, port;
    osal_timer timer;
};

int by_key(const void *a, const void *b) {
    const std::uint32_t x = static_cast<const tracked *>(a)->key;
    const std::uint32_t y = static_cast<const tracked *>(b)->key;
    return x == y ? 0 : x < y ? -1 : 1;
}

avl_tree *tree = nullptr;

void end_tracked(void *arg) {
    avl_remove(tree, arg);
    memmgr_free(arg);
}

// Bytes of this process that are memory now.
std::size_t resident_now() {
    std::ifstream file("/proc/self/statm");
    std::size_t all = 0, resident = 0;
    file >> all >> resident;
    return resident * 4096;
}

TEST(TransactionMemory, AMillionTakeLittleMemoryAndGiveItBack) {
#ifdef RAVO_ADDRESS_SANITIZER
    GTEST_SKIP() << "the sanitizer has memory of its own for every block";
#endif
    constexpr std::uint32_t million = 1000000;
    tree = avl_create(0, by_key);
    const std::size_t before = resident_now();
    for (std::uint32_t i = 0; i < million; ++i) {
        auto *made = static_cast<tracked *>(mfh_calloc(1, sizeof(tracked)));
        made->key = i * 2654435761U;  // all different, in no order
        ASSERT_TRUE(timer_queue_arm(&made->timer, end_tracked, 300, made, port_1_1));
        ASSERT_EQ(avl_insert(tree, made), 0);
    }
    EXPECT_LE((resident_now() - before) / million, 100U) << "bytes each";
    EXPECT_LE(memmgr_used() / million, 85U);
    EXPECT_GE(memmgr_used() * 5 / 4, resident_now() - before) << "what is counted is what is taken";
    for (std::size_t row = 0; row < timer_queue_ports(); ++row)
        while (timer_queue_port(row).armed != 0) timer_queue_fire_oldest(row);
    EXPECT_LE(resident_now(), before + (std::size_t{2} << 20));
    EXPECT_EQ(avl_first(tree), nullptr);
    avl_destroy(tree);
    timers_free();
    loop_free();
}

}  // namespace
