// SPDX-License-Identifier: Apache-2.0
// How the bound of the queue follows what waits: bursts keep the whole, overload gets 2 ms, and its end is seen.

#include "channel/queue_bound.h"

#include <gtest/gtest.h>

namespace {

using ravo::platform::queue_bound;

constexpr std::size_t whole = 5000;
constexpr std::int64_t short_wait = 1000, long_wait = 30'000;

// A queue that is read at a rate, and a clock.
struct served_queue {
    queue_bound bound{whole};
    std::int64_t now_us = 1;

    // For so long messages are taken, each of which has waited so long.
    void serve(std::int64_t for_us, unsigned messages_a_second, std::int64_t waited_us) {
        const std::int64_t step_us = 1'000'000 / messages_a_second;
        for (const std::int64_t end_us = now_us + for_us; now_us < end_us; now_us += step_us)
            if (bound.took()) bound.look(now_us, waited_us);
    }
};

TEST(QueueBound, ABurstMayFillTheWhole) {
    served_queue queue;
    queue.serve(90'000, 100'000, long_wait);
    EXPECT_EQ(queue.bound.room(), whole);
    EXPECT_FALSE(queue.bound.overloaded());
}

TEST(QueueBound, BurstsOneAfterAnotherAreNoOverload) {
    served_queue queue;
    for (int burst = 0; burst < 50; ++burst) {
        queue.serve(60'000, 100'000, long_wait);
        queue.bound.ran_empty();
    }
    EXPECT_EQ(queue.bound.room(), whole);
}

TEST(QueueBound, ABusyQueueThatIsShortIsNoOverload) {
    served_queue queue;
    queue.serve(3'000'000, 100'000, short_wait);
    EXPECT_EQ(queue.bound.room(), whole);
}

TEST(QueueBound, WhatStandsIsHalvedDownToWhatIsReadInTwoMilliseconds) {
    served_queue queue;
    queue.serve(103'000, 100'000, long_wait);
    EXPECT_EQ(queue.bound.room(), whole / 2);
    EXPECT_EQ(queue.bound.patience_us(), queue_bound::endless);
    EXPECT_TRUE(queue.bound.overloaded());
    queue.serve(103'000, 100'000, long_wait);
    EXPECT_EQ(queue.bound.room(), whole / 4);
    queue.serve(1'000'000, 100'000, short_wait);  // short because of the bound, and still never empty
    EXPECT_NEAR(static_cast<double>(queue.bound.room()), 200, 2);
    EXPECT_NEAR(static_cast<double>(queue.bound.patience_us()), queue_bound::longest_wait_us, 20);
}

TEST(QueueBound, ASlowReaderKeepsAFew) {
    served_queue queue;
    queue.serve(2'000'000, 10'000, long_wait);
    EXPECT_EQ(queue.bound.room(), queue_bound::least_room);
    EXPECT_NEAR(static_cast<double>(queue.bound.patience_us()), 6'400, 100);
}

TEST(QueueBound, TheBoundFollowsTheReader) {
    served_queue queue;
    queue.serve(1'000'000, 100'000, long_wait);
    queue.serve(1'000'000, 200'000, short_wait);
    EXPECT_NEAR(static_cast<double>(queue.bound.room()), 400, 4);
}

TEST(QueueBound, OverloadIsOverOnceTheQueueHasNotStoodForASecond) {
    served_queue queue;
    queue.serve(1'000'000, 100'000, long_wait);
    const auto serve_calmly = [&](int times) {
        for (int i = 0; i < times; ++i) {
            queue.bound.ran_empty();
            queue.serve(50'000, 100'000, short_wait);
        }
    };
    serve_calmly(16);
    EXPECT_TRUE(queue.bound.overloaded());
    serve_calmly(6);
    EXPECT_EQ(queue.bound.room(), whole);
    EXPECT_EQ(queue.bound.patience_us(), queue_bound::endless);
}

TEST(QueueBound, OverloadIsOverWithoutAMessageToo) {
    served_queue queue;
    queue.serve(1'000'000, 100'000, long_wait);
    queue.bound.look_idle(queue.now_us + 800'000);
    EXPECT_TRUE(queue.bound.overloaded());
    queue.bound.look_idle(queue.now_us + 1'000'000);
    EXPECT_FALSE(queue.bound.overloaded());
}

TEST(QueueBound, AQueueOfAFewIsNeverMadeLarger) {
    queue_bound bound(10);
    for (std::int64_t now_us = 1; now_us < 1'000'000; now_us += 100)
        if (bound.took()) bound.look(now_us, long_wait);
    EXPECT_EQ(bound.room(), 10U);
}

}  // namespace
