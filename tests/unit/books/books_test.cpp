// SPDX-License-Identifier: Apache-2.0
// The books of messages: each message counts once, by its last outcome, wherever it is said; the flight recorder keeps
// the last messages; watchers hear of each.
#include "books/books.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <numeric>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "books/client_book.h"
#include "books/server_book.h"

namespace {

std::size_t allocations = 0;

}  // namespace

// Counts what is allocated, so that a test can tell that nothing is.
void *operator new(std::size_t size) {
    ++allocations;
    void *memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}
void operator delete(void *memory) noexcept {
    std::free(memory);
}
void operator delete(void *memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}

namespace {

using namespace ravo::platform;
using testing::ElementsAre;
using testing::IsEmpty;
using octets = std::vector<std::uint8_t>;

constexpr std::uint32_t port_1_1 = 5121;
constexpr std::uint32_t port_1_2 = 5122;

struct message_fields {
    std::uint8_t op = 1;
    std::uint32_t xid = 0x01020304;
    std::uint8_t client = 0x0A;  // last byte of its hardware address
    octets options = {53, 1, 1, 255};
};

octets message(const message_fields &fields) {
    octets out(240);
    out[0] = fields.op;
    out[4] = static_cast<std::uint8_t>(fields.xid >> 24);
    out[5] = static_cast<std::uint8_t>(fields.xid >> 16);
    out[6] = static_cast<std::uint8_t>(fields.xid >> 8);
    out[7] = static_cast<std::uint8_t>(fields.xid);
    out[28] = 0x02;
    out[33] = fields.client;
    out.insert(out.end(), fields.options.begin(), fields.options.end());
    return out;
}

std::vector<book_entry> recorded() {
    std::vector<book_entry> out;
    books_each_recorded([&](const book_entry &entry) { out.push_back(entry); });
    return out;
}

std::uint64_t sum(const book_counters &counters) {
    return std::accumulate(counters.by_outcome.begin(), counters.by_outcome.end(), std::uint64_t{0});
}

struct Books : testing::Test {
    octets frame = {1, 2, 3};
    Books() {
        books_close();
        clients_forget();
        servers_clear();
        books_clear_counters();
        EXPECT_TRUE(books_set_recorder(16));
    }
    void take(const message_fields &fields, relay_outcome outcome, std::uint16_t vlan = 10,
              std::uint32_t port = port_1_1) const {
        const octets bytes = message(fields);
        books_open(vlan, port, frame, bytes);
        outcome_record(outcome);
        books_close();
    }
};

TEST_F(Books, CountAMessageInTotalForItsVlanAndForItsPort) {
    take({}, OUTCOME_RELAYED);
    for (const book_counters *counters : {&books_total(), &books_of_vlan(10), &books_of_port(port_1_1)}) {
        EXPECT_EQ(counters->received, 1u);
        EXPECT_EQ(counters->by_outcome[OUTCOME_RELAYED], 1u);
        EXPECT_EQ(sum(*counters), 1u);
    }
    EXPECT_EQ(books_of_vlan(11).received, 0u);
    EXPECT_EQ(books_of_port(port_1_2).received, 0u);
    EXPECT_THAT(books_vlans(), ElementsAre(10));
    EXPECT_THAT(books_ports(), ElementsAre(port_1_1));
}

TEST_F(Books, LastOutcomeCounts) {
    const octets bytes = message({});
    books_open(10, port_1_1, frame, bytes);
    outcome_record(OUTCOME_BAD_OPTIONS);
    outcome_record(OUTCOME_HOP_LIMIT);
    books_close();
    EXPECT_EQ(books_total().by_outcome[OUTCOME_BAD_OPTIONS], 0u);
    EXPECT_EQ(books_total().by_outcome[OUTCOME_HOP_LIMIT], 1u);
    EXPECT_EQ(books_total().received, 1u);
}

TEST_F(Books, LocalRebroadcastIsCountedBesideTheOutcomeThatFollows) {
    const octets bytes = message({});
    books_open(10, port_1_1, frame, bytes);
    outcome_record(OUTCOME_REBROADCAST);
    outcome_record(OUTCOME_NO_SERVER);
    books_close();
    EXPECT_EQ(books_total().rebroadcast, 1u);
    EXPECT_EQ(books_total().by_outcome[OUTCOME_REBROADCAST], 0u);
    EXPECT_EQ(books_total().by_outcome[OUTCOME_NO_SERVER], 1u);
    EXPECT_EQ(books_total().sent, 1u);
}

TEST_F(Books, MessageWithoutAnOutcomeIsUndecided) {
    const octets bytes = message({});
    books_open(10, port_1_1, frame, bytes);
    books_close();
    EXPECT_EQ(books_total().by_outcome[OUTCOME_NONE], 1u);
    EXPECT_EQ(sum(books_total()), books_total().received);
}

TEST_F(Books, OpeningClosesTheMessageBefore) {
    const octets bytes = message({});
    books_open(10, port_1_1, frame, bytes);
    outcome_record(OUTCOME_RELAYED);
    books_drop(OUTCOME_BAD_IP_CHECKSUM, 20, port_1_2, frame);
    EXPECT_EQ(books_total().received, 2u);
    EXPECT_EQ(books_of_vlan(10).by_outcome[OUTCOME_RELAYED], 1u);
    EXPECT_EQ(books_of_vlan(20).by_outcome[OUTCOME_BAD_IP_CHECKSUM], 1u);
}

TEST_F(Books, NothingIsCountedWithoutAMessageInHand) {
    outcome_record(OUTCOME_RELAYED);
    outcome_server(1);
    books_close();
    EXPECT_EQ(books_total().received, 0u);
    EXPECT_EQ(books_total().sent, 0u);
    EXPECT_THAT(recorded(), IsEmpty());
}

TEST_F(Books, WhatIsNoOutcomeIsNotTaken) {
    const octets bytes = message({});
    books_open(10, port_1_1, frame, bytes);
    outcome_record(OUTCOME_RELAYED);
    outcome_record(OUTCOMES);
    books_close();
    EXPECT_EQ(books_total().by_outcome[OUTCOME_RELAYED], 1u);
}

TEST_F(Books, UnknownPlaceCountsInTheTotalAlone) {
    books_drop(OUTCOME_UNKNOWN_PORT, 0, 0, frame);
    EXPECT_EQ(books_total().received, 1u);
    EXPECT_THAT(books_vlans(), IsEmpty());
    EXPECT_THAT(books_ports(), IsEmpty());
    EXPECT_EQ(books_of_vlan(0).received, 0u);
    EXPECT_EQ(books_of_vlan(4095).received, 0u);
    EXPECT_EQ(books_of_vlan(65535).received, 0u);
}

TEST_F(Books, ClearingLeavesTheRecorder) {
    take({}, OUTCOME_RELAYED);
    books_clear_counters();
    EXPECT_EQ(books_total().received, 0u);
    EXPECT_EQ(books_of_vlan(10).received, 0u);
    EXPECT_THAT(books_ports(), IsEmpty());
    EXPECT_EQ(recorded().size(), 1u);
}

// Messages in every order with every outcome: the sum of the outcomes is the number of messages, everywhere.
TEST_F(Books, SumOfOutcomesIsWhatWasReceived) {
    std::mt19937 random(20240607);
    const auto below = [&](std::uint32_t limit) { return static_cast<std::uint32_t>(random() % limit); };
    for (int i = 0; i < 20000; ++i) {
        octets bytes(below(400));
        for (std::uint8_t &byte : bytes) byte = static_cast<std::uint8_t>(random());
        const auto vlan = static_cast<std::uint16_t>(below(6));
        const std::uint32_t port = below(4) == 0 ? 0 : port_1_1 + below(5);
        if (below(4) == 0) {
            books_drop(static_cast<relay_outcome>(below(OUTCOMES)), vlan, port, bytes, bytes);
        } else {
            books_open(vlan, port, bytes, bytes);
            for (std::uint32_t said = below(4); said > 0; --said)
                outcome_record(static_cast<relay_outcome>(below(OUTCOMES)));
            for (std::uint32_t servers = below(7); servers > 0; --servers) outcome_server(below(1000));
            if (below(3) != 0) books_close();
        }
    }
    books_close();
    EXPECT_EQ(books_total().received, 20000u);
    EXPECT_EQ(sum(books_total()), 20000u);
    std::uint64_t of_vlans = 0;
    for (const std::uint16_t vlan : books_vlans()) {
        EXPECT_EQ(sum(books_of_vlan(vlan)), books_of_vlan(vlan).received) << vlan;
        of_vlans += books_of_vlan(vlan).received;
    }
    std::uint64_t of_ports = 0;
    for (const std::uint32_t port : books_ports()) {
        EXPECT_EQ(sum(books_of_port(port)), books_of_port(port).received) << port;
        of_ports += books_of_port(port).received;
    }
    EXPECT_LT(of_vlans, 20000u) << "some came from no VLAN";
    EXPECT_LT(of_ports, 20000u);
    EXPECT_GT(of_vlans, 15000u);
    EXPECT_GT(of_ports, 13000u);
}

// ---- The recorder ----

TEST_F(Books, RecorderKeepsWhatTheMessageSays) {
    const octets bytes = message({.options = {82, 4, 1, 2, 0xAB, 0xCD, 0, 53, 1, 3, 255, 82, 1, 9}});
    books_open(10, port_1_1, frame, bytes, {.protocol = 0x8100, .tci = 0xA00A});
    outcome_server(0x0100007F);
    outcome_server(0x0200007F);
    outcome_record(OUTCOME_RELAYED);
    books_close();
    ASSERT_EQ(recorded().size(), 1u);
    const book_entry entry = recorded().front();
    EXPECT_TRUE(entry.has_message);
    EXPECT_EQ(entry.op, 1);
    EXPECT_EQ(entry.type, 3);
    EXPECT_EQ(entry.xid, 0x01020304u);
    EXPECT_EQ(entry.vlan, 10);
    EXPECT_EQ(entry.port_ifindex, port_1_1);
    EXPECT_THAT(entry.client, ElementsAre(0x02, 0, 0, 0, 0, 0x0A));
    EXPECT_EQ(entry.outcome, OUTCOME_RELAYED);
    EXPECT_EQ(entry.servers_count, 2);
    EXPECT_THAT(entry.servers, ElementsAre(0x0100007Fu, 0x0200007Fu, 0u, 0u, 0u, 0u, 0u, 0u));
    EXPECT_EQ(entry.tag.protocol, 0x8100);
    EXPECT_EQ(entry.tag.tci, 0xA00A);
    EXPECT_FALSE(entry.rebroadcast);
    EXPECT_TRUE(entry.has_option82);
    EXPECT_EQ(entry.option82_length, 4) << "what stands behind the END option is no option";
    EXPECT_EQ(octets(entry.option82.begin(), entry.option82.begin() + 4), (octets{1, 2, 0xAB, 0xCD}));
    EXPECT_EQ(entry.answered_us, -1);
    EXPECT_GT(entry.time_us, 1600000000000000);
}

// The relay takes the first of several for the message's type; so does who reads about it.
TEST_F(Books, FirstTypeAndFirstOption82Count) {
    take({.options = {53, 1, 1, 82, 1, 7, 53, 1, 3, 82, 2, 8, 9, 255}}, OUTCOME_RELAYED);
    EXPECT_EQ(recorded().front().type, 1);
    EXPECT_EQ(recorded().front().option82_length, 1);
    EXPECT_EQ(recorded().front().option82[0], 7);
    take({.options = {53, 1, 0, 53, 1, 3, 255}}, OUTCOME_UNKNOWN_MESSAGE_TYPE);
    EXPECT_EQ(recorded().front().type, 0);
    take({.options = {82, 0, 53, 1, 3, 255}}, OUTCOME_RELAYED);
    EXPECT_TRUE(recorded().front().has_option82) << "empty, and there";
    EXPECT_EQ(recorded().front().option82_length, 0);
}

TEST_F(Books, WhatIsNoMessageIsItsSenders) {
    const octets ethernet = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 2, 0, 0, 0, 0, 9, 8, 0};
    books_drop(OUTCOME_BAD_UDP_CHECKSUM, 10, port_1_1, ethernet);
    EXPECT_THAT(recorded().front().client, ElementsAre(2, 0, 0, 0, 0, 9));
    EXPECT_FALSE(recorded().front().has_message);
    const octets bytes = message({.op = 3});
    books_open(10, port_1_1, ethernet, bytes);
    books_close();
    EXPECT_THAT(recorded().front().client, ElementsAre(2, 0, 0, 0, 0, 0x0A)) << "the message itself says whose it is";
    EXPECT_TRUE(recorded().front().has_message);
    EXPECT_EQ(recorded().front().op, 0);
    books_drop(OUTCOME_TRUNCATED, 10, port_1_1, std::span(ethernet).first(11));
    EXPECT_THAT(recorded().front().client, testing::Each(0)) << "too short for an address";
}

TEST_F(Books, RecorderKeepsThatAMessageWasBroadcastAgain) {
    const octets bytes = message({});
    books_open(10, port_1_1, frame, bytes);
    outcome_record(OUTCOME_REBROADCAST);
    outcome_record(OUTCOME_UNTRUSTED_OPTION82);
    books_close();
    EXPECT_TRUE(recorded().front().rebroadcast);
    EXPECT_EQ(recorded().front().outcome, OUTCOME_UNTRUSTED_OPTION82);
    take({}, OUTCOME_NO_SERVER);
    EXPECT_FALSE(recorded().front().rebroadcast) << "the one before";
}

// An interface has four servers for a vendor class and four for a client identifier, and a request can choose all.
TEST_F(Books, RecorderKeepsEightServersAndTheNumberOfAll) {
    const octets bytes = message({});
    books_open(10, port_1_1, frame, bytes);
    for (std::uint32_t server = 1; server <= 300; ++server) outcome_server(server);
    books_close();
    EXPECT_THAT(recorded().front().servers, ElementsAre(1u, 2u, 3u, 4u, 5u, 6u, 7u, 8u));
    EXPECT_EQ(recorded().front().servers_count, 255);
    EXPECT_EQ(books_total().sent, 300u);
}

TEST_F(Books, RecorderIsARing) {
    ASSERT_TRUE(books_set_recorder(3));
    for (std::uint32_t xid = 1; xid <= 5; ++xid) take({.xid = xid}, OUTCOME_RELAYED);
    std::vector<std::uint32_t> xids;
    for (const book_entry &entry : recorded()) xids.push_back(entry.xid);
    EXPECT_THAT(xids, ElementsAre(5u, 4u, 3u));
}

TEST_F(Books, RecorderHoldsAtLeastOne) {
    ASSERT_TRUE(books_set_recorder(0));
    take({.xid = 1}, OUTCOME_RELAYED);
    take({.xid = 2}, OUTCOME_RELAYED);
    ASSERT_EQ(recorded().size(), 1u);
    EXPECT_EQ(recorded().front().xid, 2u);
}

TEST_F(Books, SettingTheRecorderEmptiesIt) {
    take({}, OUTCOME_RELAYED);
    ASSERT_TRUE(books_set_recorder(8));
    EXPECT_THAT(recorded(), IsEmpty());
}

TEST_F(Books, ReplyKnowsHowOldItsRequestIs) {
    take({.xid = 7}, OUTCOME_RELAYED);
    take({.op = 2, .xid = 7, .options = {53, 1, 2, 255}}, OUTCOME_DELIVERED);
    take({.op = 2, .xid = 8, .options = {53, 1, 2, 255}}, OUTCOME_UNKNOWN_TRANSACTION);
    take({.op = 2, .xid = 7, .client = 0x0B, .options = {53, 1, 2, 255}}, OUTCOME_UNKNOWN_TRANSACTION);
    const std::vector<book_entry> entries = recorded();
    ASSERT_EQ(entries.size(), 4u);
    EXPECT_EQ(entries[0].answered_us, -1) << "another client";
    EXPECT_EQ(entries[1].answered_us, -1) << "another transaction";
    EXPECT_EQ(entries[2].answered_us, entries[2].time_us - entries[3].time_us);
    EXPECT_EQ(entries[3].answered_us, -1) << "a request answers nothing";
}

TEST_F(Books, RefusedMessageIsRecordedWithItsClient) {
    const octets bytes = message({.xid = 9, .client = 0x0C});
    books_drop(OUTCOME_UNKNOWN_VLAN, 0, port_1_1, frame, bytes);
    EXPECT_EQ(recorded().front().client[5], 0x0C);
    EXPECT_EQ(recorded().front().outcome, OUTCOME_UNKNOWN_VLAN);
}

// A message that ends anywhere, and an option that claims any length: what is read stays inside the message.
TEST_F(Books, BrokenMessagesAreReadAsFarAsTheyGo) {
    const octets whole = message({.options = {82, 3, 1, 1, 7, 53, 1, 5, 255}});
    for (std::size_t size = 0; size <= whole.size(); ++size) {
        const octets cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
        books_open(10, port_1_1, cut, cut);
        books_close();
        const book_entry entry = recorded().front();
        EXPECT_EQ(entry.op, size >= 236 ? 1 : 0) << size;
        EXPECT_EQ(entry.option82_length, size >= 245 ? 3 : 0) << size;
        EXPECT_EQ(entry.type, size >= 248 ? 5 : 0) << size;
    }
    for (unsigned claimed = 0; claimed < 256; ++claimed) {
        octets bytes = message({.options = {82, static_cast<std::uint8_t>(claimed)}});
        bytes.resize(bytes.size() + 40, 0x55);
        books_open(10, port_1_1, bytes, bytes);
        books_close();
        EXPECT_EQ(recorded().front().has_option82, claimed <= 40) << claimed;
        EXPECT_EQ(recorded().front().option82_length, claimed > 40 ? 0u : claimed) << claimed;
    }
}

TEST_F(Books, NothingIsAllocatedForAMessage) {
    take({}, OUTCOME_RELAYED);  // the port's counters are made once
    const octets bytes = message({});
    const std::size_t before = allocations;
    for (int i = 0; i < 100; ++i) {
        books_open(10, port_1_1, frame, bytes);
        outcome_server(1);
        outcome_record(OUTCOME_RELAYED);
        books_close();
        books_drop(OUTCOME_TRUNCATED, 20, port_1_1, frame);
    }
    EXPECT_EQ(allocations, before);
    EXPECT_EQ(books_total().received, 201u);
}

// ---- Watchers ----

TEST_F(Books, WatchersHearOfEachMessageWithItsFrame) {
    std::vector<std::string> heard;
    const int first = books_watch([&](const book_entry &entry, std::span<const std::uint8_t> bytes) {
        heard.push_back(std::string(outcome_word(static_cast<relay_outcome>(entry.outcome))) + " " +
                        std::to_string(bytes.size()));
    });
    const int second =
        books_watch([&](const book_entry &, std::span<const std::uint8_t>) { heard.emplace_back("two"); });
    take({}, OUTCOME_RELAYED);
    books_unwatch(second);
    books_drop(OUTCOME_TRUNCATED, 10, port_1_1, frame);
    books_unwatch(first);
    take({}, OUTCOME_RELAYED);
    EXPECT_THAT(heard, ElementsAre("relayed 3", "two", "truncated 3"));
}

TEST_F(Books, WatcherMayTakeItselfOff) {
    int heard_by_first = 0, heard_by_second = 0;
    int first = 0;
    first = books_watch([&](const book_entry &, std::span<const std::uint8_t>) {
        ++heard_by_first;
        books_unwatch(first);
    });
    const int second = books_watch([&](const book_entry &, std::span<const std::uint8_t>) { ++heard_by_second; });
    take({}, OUTCOME_RELAYED);
    take({}, OUTCOME_RELAYED);
    books_unwatch(second);
    EXPECT_EQ(heard_by_first, 1);
    EXPECT_EQ(heard_by_second, 2) << "the one behind it misses nothing";
}

// ---- Words ----

TEST_F(Books, EveryOutcomeHasAWordOfItsOwnAndAText) {
    std::set<std::string_view> words;
    for (int i = 0; i < OUTCOMES; ++i) {
        const auto outcome = static_cast<relay_outcome>(i);
        EXPECT_TRUE(words.insert(outcome_word(outcome)).second) << outcome_word(outcome);
        EXPECT_FALSE(outcome_text(outcome).empty());
        EXPECT_THAT(std::string(outcome_word(outcome)), testing::MatchesRegex("[a-z0-9-]+"));
    }
    EXPECT_EQ(outcome_word(OUTCOMES), "unknown");
    EXPECT_EQ(outcome_text(OUTCOMES), "unknown outcome");
}

TEST_F(Books, MessageTypesHaveTheirNames) {
    std::vector<std::string_view> words;
    for (std::uint8_t type = 0; type <= 9; ++type) words.push_back(message_type_word(type));
    EXPECT_THAT(words,
                ElementsAre("-", "DISCOVER", "OFFER", "REQUEST", "DECLINE", "ACK", "NAK", "RELEASE", "INFORM", "?"));
}

}  // namespace
