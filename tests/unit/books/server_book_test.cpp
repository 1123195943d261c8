// SPDX-License-Identifier: Apache-2.0
// The servers' figures: asked, answered, how fast, silent since when.
#include "books/server_book.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using ravo::platform::answer_time;
using ravo::platform::server_figures;
using ravo::platform::servers_all;
using ravo::platform::servers_clear;
using ravo::platform::servers_note_answered;
using ravo::platform::servers_note_asked;
using ravo::platform::servers_who;
using ravo::platform::silent_seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr std::int64_t second = 1000000;
constexpr std::int64_t start = 1700000000 * second;
const std::uint32_t a = inet_addr("192.0.2.11");
const std::uint32_t b = inet_addr("192.0.2.12");
const std::uint32_t c = inet_addr("198.51.100.1");

class ServerBook : public testing::Test {
  protected:
    void SetUp() override { servers_clear(); }
    void TearDown() override { servers_clear(); }
    static server_figures only() {
        EXPECT_THAT(servers_all(), SizeIs(1));
        return servers_all().at(0);
    }
};

TEST_F(ServerBook, CountsByInterfaceAndServer) {
    servers_note_asked(20, b, 0, start);
    servers_note_asked(10, a, 0, start);
    servers_note_asked(10, b, 0, start);
    servers_note_asked(10, a, 0, start);
    servers_note_answered(10, a, a, 1000);
    std::vector<std::string> rows;
    for (const server_figures &each : servers_all())
        rows.push_back(std::to_string(each.vlan) + (each.server == a ? " a " : " b ") + std::to_string(each.asked) +
                       " " + std::to_string(each.answered));
    EXPECT_THAT(rows, ElementsAre("10 a 2 1", "10 b 1 0", "20 b 1 0"));
}

TEST_F(ServerBook, WhatAClientSendsToTheServerItHasChosenTheOthersNeedNotAnswer) {
    servers_note_asked(10, a, 0, start);
    servers_note_asked(10, b, 0, start);
    servers_note_answered(10, a, a, 1);
    servers_note_answered(10, b, c, 1);  // it calls itself by another address
    for (const std::uint32_t server : {a, b}) servers_note_asked(10, server, c, start + second);
    EXPECT_EQ(servers_all().at(0).asked, 1U);
    EXPECT_EQ(servers_all().at(1).asked, 2U);
    EXPECT_EQ(silent_seconds(servers_all().at(0), start + 100 * second), std::nullopt);
    // One that nobody knows may be any of them.
    for (const std::uint32_t server : {a, b}) servers_note_asked(10, server, inet_addr("203.0.113.1"), start + second);
    EXPECT_EQ(servers_all().at(0).asked, 2U);
    EXPECT_EQ(servers_all().at(1).asked, 3U);
}

TEST_F(ServerBook, AReplyIsFromTheServerOfItsPacketElseOfItsOption) {
    servers_note_asked(10, a, 0, start);
    servers_note_asked(10, b, 0, start);
    EXPECT_EQ(servers_who(10, a, b), a);
    EXPECT_EQ(servers_who(10, c, b), b);
    EXPECT_EQ(servers_who(10, c, 0), c);
    EXPECT_EQ(servers_who(20, c, b), c) << "of another interface";
    servers_note_answered(10, b, inet_addr("10.0.0.5"), 1);
    EXPECT_EQ(servers_who(10, c, inet_addr("10.0.0.5")), b);
}

TEST_F(ServerBook, WhoWasNotAskedIsNotEntered) {
    servers_note_answered(10, a, a, 1000);
    EXPECT_THAT(servers_all(), IsEmpty());
}

TEST_F(ServerBook, IsSilentFromTheFirstRequestSinceItsLastAnswerOnce5sOld) {
    servers_note_asked(10, a, 0, start);
    servers_note_asked(10, a, 0, start + 3 * second);
    EXPECT_EQ(silent_seconds(only(), start + 5 * second - 1), std::nullopt);
    EXPECT_EQ(silent_seconds(only(), start + 5 * second), 5);
    EXPECT_EQ(only().unanswered, 2U);
    servers_note_answered(10, a, a, 1);
    EXPECT_EQ(silent_seconds(only(), start + 50 * second), std::nullopt);
    EXPECT_EQ(only().unanswered, 0U);
    servers_note_asked(10, a, 0, start + 60 * second);
    EXPECT_EQ(silent_seconds(only(), start + 70 * second), 10);
}

TEST_F(ServerBook, TimesAreKnownToTheirQuarterOfAnOctave) {
    servers_note_asked(10, a, 0, start);
    EXPECT_EQ(answer_time(only(), 0.5), std::nullopt);
    for (std::int64_t time = 1; time < 60 * second; time = time * 3 / 2 + 1) {
        servers_clear();
        servers_note_asked(10, a, 0, start);
        servers_note_answered(10, a, a, time);
        const auto told = static_cast<double>(answer_time(only(), 0.5).value());
        if (time >= 40) {
            EXPECT_NEAR(told, static_cast<double>(time), 0.13 * static_cast<double>(time));
        } else {
            EXPECT_LE(told, 40);
        }
        EXPECT_EQ(only().time_sum_us, static_cast<std::uint64_t>(time));
    }
}

TEST_F(ServerBook, MedianAndP99OfAThousand) {
    servers_note_asked(10, a, 0, start);
    for (int i = 0; i < 980; ++i) servers_note_answered(10, a, a, 1000 + i);
    for (int i = 0; i < 20; ++i) servers_note_answered(10, a, a, 100000);
    EXPECT_NEAR(static_cast<double>(answer_time(only(), 0.5).value()), 1490, 150);
    EXPECT_NEAR(static_cast<double>(answer_time(only(), 0.99).value()), 100000, 13000);
    EXPECT_EQ(only().answered, 1000U);
}

TEST_F(ServerBook, AnAnswerWhoseRequestIsNotKnownCountsWithoutATime) {
    servers_note_asked(10, a, 0, start);
    servers_note_answered(10, a, 0, -1);
    EXPECT_EQ(only().answered, 1U);
    EXPECT_EQ(answer_time(only(), 0.5), std::nullopt);
    servers_note_answered(10, a, 0, INT64_MAX);
    EXPECT_EQ(only().times.back(), 1U) << "beyond all buckets";
}

TEST_F(ServerBook, OfManyThatCameAndWentTheLastOnesAreKept) {
    for (std::uint32_t i = 1; i <= 100; ++i) servers_note_asked(10, htonl(0x0A000000 + i), 0, start + i);
    EXPECT_THAT(servers_all(), SizeIs(32));
    for (const server_figures &each : servers_all()) EXPECT_GT(ntohl(each.server), 0x0A000000U + 68);
}

}  // namespace
