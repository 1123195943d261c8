// SPDX-License-Identifier: Apache-2.0
// The queue between the event loop and the log's writer.
#include "log/log_queue.h"

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <random>
#include <string>
#include <thread>

namespace {

using ravo::platform::log_queue;
using ravo::platform::log_queue_empty;
using ravo::platform::log_queue_put;
using ravo::platform::log_queue_take;
using ravo::platform::queue_entry;
using ravo::platform::queue_text_room;
using ravo::platform::queued;

struct Queue : testing::Test {
    std::unique_ptr<log_queue> queue = std::make_unique<log_queue>();

    bool put(const std::string &text, bool urgent = false) {
        return log_queue_put(*queue, {.what = queued::text}, text, urgent);
    }
    // The text of the oldest entry, "none" without one.
    std::string take() {
        queue_entry entry;
        std::array<char, queue_text_room> text;
        return log_queue_take(*queue, &entry, text.data()) ? std::string(text.data(), entry.length) : "none";
    }
};

TEST_F(Queue, GivesBackWhatItGotInOrder) {
    EXPECT_TRUE(log_queue_empty(*queue));
    EXPECT_EQ(take(), "none");
    EXPECT_TRUE(put("one"));
    EXPECT_TRUE(put(""));
    EXPECT_TRUE(put("three"));
    EXPECT_FALSE(log_queue_empty(*queue));
    EXPECT_EQ(take(), "one");
    EXPECT_EQ(take(), "");
    EXPECT_EQ(take(), "three");
    EXPECT_EQ(take(), "none");
    EXPECT_TRUE(log_queue_empty(*queue));
}

TEST_F(Queue, KeepsWhatGoesWithAText) {
    const queue_entry record{.what = queued::record, .severity = 4, .text_length = 2};
    ASSERT_TRUE(log_queue_put(*queue, record, "abcd", false));
    ASSERT_TRUE(log_queue_put(*queue, {.what = queued::new_stream, .fd = 17}, "", true));
    queue_entry entry;
    std::array<char, queue_text_room> text;
    ASSERT_TRUE(log_queue_take(*queue, &entry, text.data()));
    EXPECT_EQ(entry.what, queued::record);
    EXPECT_EQ(entry.severity, 4);
    EXPECT_EQ(entry.text_length, 2);
    EXPECT_EQ(entry.length, 4u);
    ASSERT_TRUE(log_queue_take(*queue, &entry, text.data()));
    EXPECT_EQ(entry.what, queued::new_stream);
    EXPECT_EQ(entry.fd, 17);
}

TEST_F(Queue, IsFullBeforeTheReserveAndUrgentTextUsesIt) {
    const std::string text(1000, 'x');
    std::size_t count = 0;
    while (put(text)) ++count;
    const std::size_t an_entry = sizeof(queue_entry) + text.size();
    EXPECT_EQ(count, (log_queue::room - log_queue::reserve) / an_entry);
    std::size_t urgent = 0;
    while (put(text, /*urgent=*/true)) ++urgent;
    EXPECT_EQ(count + urgent, log_queue::room / an_entry);
    EXPECT_EQ(take(), text);
    EXPECT_FALSE(put(text)) << "one place is not enough while the reserve is in use";
}

TEST_F(Queue, ALongerTextIsCutToWhatCanBeTaken) {
    EXPECT_TRUE(put(std::string(2 * queue_text_room, 'x')));
    EXPECT_EQ(take(), std::string(queue_text_room, 'x'));
}

TEST_F(Queue, TextsOfAllLengthsSurviveTheEndOfTheRing) {
    std::mt19937 random(7);
    std::size_t bytes = 0;
    for (std::size_t i = 0; bytes < 5 * log_queue::room; ++i) {
        const std::string a(random() % 4000, static_cast<char>('a' + i % 26)), b(random() % 50, 'b');
        ASSERT_TRUE(put(a) && put(b));
        ASSERT_EQ(take(), a);
        ASSERT_EQ(take(), b);
        bytes += a.size() + b.size();
    }
}

TEST_F(Queue, TwoThreadsNeverWaitForEachOtherAndLoseNothing) {
    constexpr unsigned many = 200000;
    std::thread reader([this] {
        for (unsigned expected = 0; expected < many;) {
            const std::string got = take();
            if (got == "none") continue;
            ASSERT_EQ(got, "line " + std::to_string(expected));
            ++expected;
        }
    });
    for (unsigned i = 0; i < many;)
        if (put("line " + std::to_string(i))) ++i;
    reader.join();
}

}  // namespace
