// SPDX-License-Identifier: Apache-2.0
// What the books read from a message, and what copies make of it.
#include "books/book_message.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "books/server_book.h"

namespace {

using namespace ravo::platform;
using testing::ElementsAre;
using octets = std::vector<std::uint8_t>;

constexpr std::uint32_t first_server = 0x0B0200C0, second_server = 0x0C0200C0;

octets message(std::uint8_t op, const octets &options) {
    octets out(240);
    out[0] = op;
    const octets xid = {0x12, 0x34, 0x56, 0x78}, yiaddr = {10, 0, 0, 9}, chaddr = {2, 3, 4, 5, 6, 7};
    std::copy(xid.begin(), xid.end(), out.begin() + 4);
    std::copy(yiaddr.begin(), yiaddr.end(), out.begin() + 16);
    std::copy(chaddr.begin(), chaddr.end(), out.begin() + 28);
    out.insert(out.end(), options.begin(), options.end());
    return out;
}

book_message read(const octets &bytes, const octets &frame = {}) {
    book_message m;
    message_read(m, frame, bytes);
    return m;
}

book_entry read_options(const octets &options) {
    return read(message(1, options)).entry;
}

octets seen82(const book_entry &entry) {
    return {entry.option82.begin(), entry.option82.begin() + std::min<int>(entry.option82_length, 32)};
}

TEST(BookMessage, TheFixedHeader) {
    const book_message m = read(message(2, {53, 1, 5, 54, 4, 192, 0, 2, 11, 255}));
    EXPECT_TRUE(m.entry.has_message);
    EXPECT_TRUE(m.has_client);
    EXPECT_EQ(m.entry.op, 2);
    EXPECT_EQ(m.entry.xid, 0x12345678U);
    EXPECT_EQ(m.entry.address, inet_addr("10.0.0.9"));
    EXPECT_THAT(m.entry.client, ElementsAre(2, 3, 4, 5, 6, 7));
    EXPECT_EQ(m.entry.type, 5);
    EXPECT_EQ(m.identifier, inet_addr("192.0.2.11"));
}

TEST(BookMessage, WhatIsNeitherRequestNorReplyHasNoOperation) {
    EXPECT_EQ(read(message(0, {})).entry.op, 0);
    EXPECT_EQ(read(message(3, {})).entry.op, 0);
    EXPECT_EQ(read(message(255, {})).entry.op, 0);
}

TEST(BookMessage, AFixedHeaderCutShortIsNone) {
    octets bytes = message(1, {});
    bytes.resize(236);
    EXPECT_TRUE(read(bytes).entry.has_message) << "no cookie, no options";
    bytes.resize(235);
    EXPECT_FALSE(read(bytes).entry.has_message);
    EXPECT_FALSE(read(bytes).has_client);
}

TEST(BookMessage, OfSeveralTypesTheFirstCounts) {
    EXPECT_EQ(read_options({53, 1, 3, 53, 1, 1, 255}).type, 3);
    EXPECT_EQ(read_options({53, 0, 53, 1, 4, 53, 1, 1, 255}).type, 4) << "an empty one says nothing";
    EXPECT_EQ(read_options({0, 0, 53, 2, 6, 9, 255}).type, 6);
    EXPECT_EQ(read_options({255, 53, 1, 1}).type, 0) << "nothing is behind the end";
    EXPECT_EQ(read_options({12, 2, 53, 1, 255}).type, 0) << "not within another";
}

TEST(BookMessage, OfSeveralServersTheLastWholeOneCounts) {
    const auto server = [](const octets &options) { return read(message(2, options)).identifier; };
    EXPECT_EQ(server({54, 4, 192, 0, 2, 11, 54, 4, 192, 0, 2, 12, 255}), second_server);
    EXPECT_EQ(server({54, 4, 192, 0, 2, 11, 54, 3, 192, 0, 2, 255}), first_server);
    EXPECT_EQ(server({54, 5, 192, 0, 2, 11, 1, 255}), 0U);
}

TEST(BookMessage, OfSeveralOption82sTheFirstCounts) {
    const book_entry entry = read_options({82, 3, 1, 1, 7, 82, 3, 1, 1, 8, 255});
    EXPECT_TRUE(entry.has_option82);
    EXPECT_THAT(seen82(entry), ElementsAre(1, 1, 7));
    const book_entry empty = read_options({82, 0, 82, 3, 1, 1, 8, 255});
    EXPECT_TRUE(empty.has_option82);
    EXPECT_EQ(empty.option82_length, 0);
    EXPECT_FALSE(read_options({53, 1, 1, 255}).has_option82);
}

TEST(BookMessage, OfALongOption82TheFirstBytesAreKept) {
    octets options = {82, 200};
    for (int i = 0; i < 200; ++i) options.push_back(static_cast<std::uint8_t>(i));
    options.push_back(255);
    const book_entry entry = read_options(options);
    EXPECT_EQ(entry.option82_length, 200);
    for (std::size_t i = 0; i < entry.option82.size(); ++i) EXPECT_EQ(entry.option82[i], i);
}

TEST(BookMessage, AChainThatBreaksOffSaysWhatItSaidUntilThere) {
    EXPECT_EQ(read_options({53, 1, 3, 82, 9, 1}).type, 3);
    EXPECT_FALSE(read_options({53, 1, 3, 82, 9, 1}).has_option82);
    EXPECT_EQ(read_options({53, 1}).type, 0);
    EXPECT_EQ(read_options({53}).type, 0);
}

TEST(BookMessage, ThePacketsSourceIsReadBehindATagToo) {
    octets frame(34);
    frame[12] = 8;
    const octets source = {192, 0, 2, 11};
    std::copy(source.begin(), source.end(), frame.begin() + 26);
    EXPECT_EQ(read({}, frame).source, first_server);
    frame.resize(29);
    EXPECT_EQ(read({}, frame).source, 0U) << "cut short";
    octets tagged(38);
    tagged[12] = 0x81;
    std::copy(source.begin(), source.end(), tagged.begin() + 30);
    EXPECT_EQ(read({}, tagged).source, first_server);
}

TEST(BookMessage, WhatCannotBeReadIsItsSenders) {
    octets frame(12);
    const octets sender = {2, 9, 9, 9, 9, 1};
    std::copy(sender.begin(), sender.end(), frame.begin() + 6);
    EXPECT_THAT(read({}, frame).entry.client, ElementsAre(2, 9, 9, 9, 9, 1));
    EXPECT_TRUE(read({}, frame).has_client);
    frame.pop_back();
    EXPECT_THAT(read({}, frame).entry.client, ElementsAre(0, 0, 0, 0, 0, 0));
    EXPECT_THAT(read(message(1, {}), frame).entry.client, ElementsAre(2, 3, 4, 5, 6, 7));
}

TEST(BookMessage, EightServersAreListedAndAllAreCounted) {
    servers_clear();
    book_message m = read(message(1, {53, 1, 1, 255}));
    m.entry.vlan = 10;
    for (std::uint32_t server = 1; server <= 300; ++server) message_sent_to(m, server);
    EXPECT_EQ(m.sent, 300U);
    EXPECT_EQ(m.entry.servers_count, 255);
    EXPECT_THAT(m.entry.servers, ElementsAre(1, 2, 3, 4, 5, 6, 7, 8));
    message_relate(m);
    EXPECT_EQ(servers_all().size(), 32U) << "of the others the last ones, as many as are remembered of a VLAN";
}

TEST(BookMessage, ARefusedCopyIsTakenOffTheList) {
    book_message m = read(message(1, {53, 1, 1, 255}));
    message_sent_to(m, first_server);
    message_sent_to(m, second_server);
    m.entry.outcome = OUTCOME_RELAYED;
    message_refused(m, first_server);
    EXPECT_EQ(m.entry.outcome, OUTCOME_RELAYED);
    EXPECT_EQ(m.entry.servers_count, 1);
    EXPECT_THAT(m.entry.servers, ElementsAre(second_server, 0, 0, 0, 0, 0, 0, 0));
    message_refused(m, second_server);
    EXPECT_EQ(m.entry.outcome, OUTCOME_SEND_FAILED);
    EXPECT_EQ(m.sent, 0U);
    EXPECT_TRUE(m.some_were_refused);
}

}  // namespace
