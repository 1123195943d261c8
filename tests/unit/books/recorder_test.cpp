// SPDX-License-Identifier: Apache-2.0
// The flight recorder's shares: who has most gives way, and nobody else.
#include "books/recorder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <vector>

namespace {

using namespace ravo::platform;
using testing::ElementsAre;

std::uint64_t number = 0;

void keep(std::uint32_t port, int times = 1) {
    for (int i = 0; i < times; ++i) {
        book_entry entry;
        entry.number = ++number;
        entry.port_ifindex = port;
        recorder_keep(entry);
    }
}

std::vector<std::uint64_t> numbers_of(std::uint32_t port) {
    std::vector<std::uint64_t> numbers;
    recorder_each([&](const book_entry &entry) {
        if (entry.port_ifindex == port) numbers.push_back(entry.number);
    });
    return numbers;
}

struct Recorder : testing::Test {
    Recorder() {
        EXPECT_TRUE(recorder_set_size(100));
        number = 0;
    }
    ~Recorder() override {
        // Whatever happened: newest first, each once, all of them.
        std::vector<std::uint64_t> numbers;
        recorder_each([&](const book_entry &entry) { numbers.push_back(entry.number); });
        EXPECT_TRUE(std::is_sorted(numbers.rbegin(), numbers.rend()));
        EXPECT_EQ(std::adjacent_find(numbers.begin(), numbers.end()), numbers.end());
        EXPECT_EQ(numbers.size(), std::min<std::uint64_t>(number, recorder_size()));
    }
};

TEST_F(Recorder, HoldsTheLastOnesOfAllWhenAllComeAlike) {
    for (int i = 0; i < 1000; ++i) keep(5121 + static_cast<std::uint32_t>(i % 4));
    std::vector<std::uint64_t> numbers;
    recorder_each([&](const book_entry &entry) { numbers.push_back(entry.number); });
    ASSERT_EQ(numbers.size(), 100U);
    for (std::size_t i = 0; i < numbers.size(); ++i) EXPECT_EQ(numbers[i], 1000 - i);
}

TEST_F(Recorder, AFloodOverwritesItsOwn) {
    keep(5122, 3);
    keep(0, 2);
    keep(5121, 10000);
    EXPECT_THAT(numbers_of(5122), ElementsAre(3, 2, 1));
    EXPECT_THAT(numbers_of(0), ElementsAre(5, 4));
    EXPECT_EQ(numbers_of(5121).size(), 95U);
    EXPECT_EQ(numbers_of(5121).back(), 10005U - 94);
    keep(5123, 1);
    EXPECT_EQ(numbers_of(5121).size(), 94U) << "who comes anew takes from who has most";
}

TEST_F(Recorder, SharesBecomeEqualAmongThoseWhoWantMore) {
    keep(5121, 500);
    for (int i = 0; i < 5000; ++i) {
        keep(5121, 10);
        keep(5122);
        keep(5123);
    }
    for (const std::uint32_t port : {5121U, 5122U, 5123U})
        EXPECT_NEAR(static_cast<double>(numbers_of(port).size()), 100 / 3.0, 2.0) << port;
}

TEST_F(Recorder, ManyPortsShareItAlike) {
    std::uint32_t random = 1;
    for (int i = 0; i < 50000; ++i) {
        random = random * 1664525 + 1013904223;
        keep(5121 + random / 65536 % 20);
    }
    std::map<std::uint32_t, int> held;
    recorder_each([&](const book_entry &entry) { ++held[entry.port_ifindex]; });
    EXPECT_EQ(held.size(), 20U);
    for (const auto &[port, count] : held) EXPECT_NEAR(count, 5, 3) << port;
}

TEST_F(Recorder, MorePortsThanItHoldsAreNoTrouble) {
    for (std::uint32_t port = 5121; port < 5121 + 6000; ++port) keep(port);
    EXPECT_EQ(numbers_of(5121 + 5999), std::vector<std::uint64_t>{6000});
}

TEST_F(Recorder, OfOneMessageHoldsTheLast) {
    ASSERT_TRUE(recorder_set_size(1));
    keep(5121, 5);
    keep(5122, 5);
    EXPECT_THAT(numbers_of(5122), ElementsAre(10));
    EXPECT_EQ(recorder_size(), 1U);
}

TEST_F(Recorder, SetAnewIsEmpty) {
    keep(5121, 200);
    ASSERT_TRUE(recorder_set_size(50));
    EXPECT_TRUE(numbers_of(5121).empty());
    number = 0;
    keep(5122, 60);
    EXPECT_EQ(numbers_of(5122).size(), 50U);
}

book_entry message_of(std::uint8_t client, std::uint32_t port) {
    book_entry entry;
    entry.number = ++number;
    entry.client = {2, 0, 0, 0, 0, client};
    entry.port_ifindex = port;
    return entry;
}

TEST(RecorderForgets, OneClientAPartAtATimeAndTheOthersStay) {
    ASSERT_TRUE(recorder_set_size(10000));
    number = 0;
    for (int i = 0; i < 10000; ++i) recorder_keep(message_of(i % 10 == 0 ? 1 : 2, 5121 + i % 3));
    std::size_t turns = 0, at = 0;
    do {
        at = recorder_forget({2, 0, 0, 0, 0, 1}, at);
        ++turns;
    } while (at != 0);
    EXPECT_EQ(turns, 3U);
    std::size_t left = 0;
    recorder_each([&](const book_entry &entry) { left += entry.client[5] == 2 ? 1 : 100000; });
    EXPECT_EQ(left, 9000U);
    for (int i = 0; i < 10000; ++i) recorder_keep(message_of(3, 5121));
    EXPECT_EQ(recorder_size(), 10000U);
    left = 0;
    recorder_each([&](const book_entry &entry) { left += entry.client[5] == 1 ? 1 : 0; });
    EXPECT_EQ(left, 0U);
}

TEST(RecorderForgets, AllAndGoesOn) {
    ASSERT_TRUE(recorder_set_size(100));
    for (int i = 0; i < 150; ++i) recorder_keep(message_of(1, 5121));
    recorder_clear();
    EXPECT_THAT(numbers_of(5121), ElementsAre());
    number = 7;
    recorder_keep(message_of(1, 5121));
    EXPECT_THAT(numbers_of(5121), ElementsAre(8));
    EXPECT_EQ(recorder_forget({9, 9, 9, 9, 9, 9}, 0), 0U);
    EXPECT_THAT(numbers_of(5121), ElementsAre(8));
}

}  // namespace
