// SPDX-License-Identifier: Apache-2.0
// The clients' table: how a client stands after each message, and which replies were answers already.
#include "books/client_book.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using ravo::platform::client_address;
using ravo::platform::client_phase;
using ravo::platform::client_view;
using ravo::platform::clients_all;
using ravo::platform::clients_find_request;
using ravo::platform::clients_forget;
using ravo::platform::clients_look;
using ravo::platform::clients_note_delivered;
using ravo::platform::clients_note_request;
using testing::IsEmpty;
using testing::SizeIs;

constexpr std::uint8_t DISCOVER = 1, OFFER = 2, REQUEST = 3, DECLINE = 4, ACK = 5, NAK = 6, RELEASE = 7, INFORM = 8;
constexpr std::int64_t second = 1000000;
constexpr std::int64_t start = 1700000000 * second;
const client_address client = {2, 0, 0, 0, 0, 1};
const std::uint32_t address = inet_addr("10.10.0.7");
const std::uint32_t server = inet_addr("192.0.2.11");
const std::uint32_t other_server = inet_addr("192.0.2.12");

class ClientBook : public testing::Test {
  protected:
    std::int64_t now = start;

    void SetUp() override { clients_forget(); }
    void asks(std::uint8_t type, std::uint32_t xid, std::uint16_t vlan = 10, std::uint32_t port = 5123) const {
        clients_note_request({client, xid, type, vlan, port, now});
    }
    void gets(std::uint8_t type, std::uint32_t xid, std::uint32_t from = server, std::uint32_t offer = address) const {
        clients_note_delivered({client, xid, type, offer, from, now});
    }
    client_view look() const { return clients_look(client, now).value(); }
    bool answered_before(std::uint32_t xid, std::uint8_t type = OFFER) const {
        return clients_find_request(client, xid, type, now)->answered_before;
    }
};

TEST_F(ClientBook, FromDiscoverToAck) {
    asks(DISCOVER, 7);
    EXPECT_EQ(look().phase, client_phase::asking);
    EXPECT_EQ(look().vlan, 10);
    EXPECT_EQ(look().port_ifindex, 5123U);
    EXPECT_EQ(look().heard_us, start);
    now += 2 * second;
    EXPECT_EQ(look().unanswered_us, 2 * second);
    gets(OFFER, 7);
    EXPECT_EQ(look().phase, client_phase::offered);
    EXPECT_EQ(look().address, address);
    EXPECT_EQ(look().server, server);
    EXPECT_EQ(look().unanswered_us, -1);
    asks(REQUEST, 7);
    EXPECT_EQ(look().phase, client_phase::asking);
    gets(ACK, 7);
    EXPECT_EQ(look().phase, client_phase::bound);
    EXPECT_EQ(look().address, address);
    EXPECT_EQ(look().server, server);
}

TEST_F(ClientBook, ItAsksInVainSinceTheFirstRequestBehindItsLastAnswer) {
    asks(DISCOVER, 7);
    now += 4 * second;
    asks(DISCOVER, 7);
    now += 3 * second;
    asks(DISCOVER, 8);
    EXPECT_EQ(look().unanswered_us, 7 * second);
    gets(OFFER, 8);
    EXPECT_EQ(look().unanswered_us, -1);
    now += second;
    asks(REQUEST, 8);
    now += second;
    EXPECT_EQ(look().unanswered_us, second);
}

TEST_F(ClientBook, RefusedInformedReleasedDeclined) {
    asks(REQUEST, 1);
    gets(NAK, 1, server, 0);
    EXPECT_EQ(look().phase, client_phase::refused);
    EXPECT_EQ(look().address, 0U);
    asks(INFORM, 2);
    gets(ACK, 2, server, 0);
    EXPECT_EQ(look().phase, client_phase::informed);
    asks(REQUEST, 3);
    gets(ACK, 3);
    asks(RELEASE, 4);
    EXPECT_EQ(look().phase, client_phase::released);
    EXPECT_EQ(look().address, address);
    now += 10 * second;
    EXPECT_EQ(look().unanswered_us, -1) << "a RELEASE is not answered";
    asks(DECLINE, 5);
    EXPECT_EQ(look().phase, client_phase::declined);
}

TEST_F(ClientBook, WhatASecondServerSaysLaterChangesNothing) {
    asks(DISCOVER, 1);
    gets(OFFER, 1);
    asks(REQUEST, 1);
    gets(OFFER, 1, other_server, inet_addr("10.10.0.99"));
    EXPECT_EQ(look().phase, client_phase::offered);
    gets(ACK, 1);
    gets(OFFER, 1, other_server, inet_addr("10.10.0.99"));
    gets(NAK, 1, other_server, 0);
    EXPECT_EQ(look().phase, client_phase::bound);
    EXPECT_EQ(look().address, address);
    EXPECT_EQ(look().server, server);
}

TEST_F(ClientBook, AnAckOfAnOlderTransactionMakesNobodyBound) {
    asks(REQUEST, 1);
    asks(DISCOVER, 2);
    gets(ACK, 1);
    EXPECT_EQ(look().phase, client_phase::asking);
}

// ---- Already answered ----

TEST_F(ClientBook, AReplyIsAnsweredBeforeOnceAnotherWasDelivered) {
    asks(DISCOVER, 7);
    EXPECT_FALSE(answered_before(7));
    gets(OFFER, 7);
    EXPECT_TRUE(answered_before(7));
    EXPECT_FALSE(answered_before(8)) << "another transaction";
    EXPECT_FALSE(clients_find_request({2, 0, 0, 0, 0, 9}, 7, OFFER, now).has_value()) << "another client";
}

TEST_F(ClientBook, TheLastTwoTransactionsAreRemembered) {
    asks(DISCOVER, 1);
    gets(OFFER, 1);
    asks(REQUEST, 2);
    gets(ACK, 2);
    EXPECT_TRUE(answered_before(1));
    EXPECT_TRUE(answered_before(2));
    gets(ACK, 2);
    EXPECT_TRUE(answered_before(1)) << "the same one again pushes none out";
    asks(REQUEST, 3);
    gets(ACK, 3);
    EXPECT_FALSE(answered_before(1));
    EXPECT_TRUE(answered_before(2));
}

TEST_F(ClientBook, ForThreeHundredSeconds) {
    asks(DISCOVER, 7);
    gets(OFFER, 7);
    now += 300 * second;
    EXPECT_TRUE(answered_before(7));
    now += second;
    EXPECT_FALSE(answered_before(7));
}

TEST_F(ClientBook, ATransactionOfTheNumberZeroIsOneLikeOthers) {
    asks(DISCOVER, 0);
    EXPECT_FALSE(answered_before(0));
    gets(OFFER, 0);
    EXPECT_TRUE(answered_before(0));
}

// ---- How long a request has waited ----

TEST_F(ClientBook, AnOfferAnswersTheDiscoverAndTheOthersTheLastRequest) {
    const auto waited = [&](std::uint32_t xid, std::uint8_t type) {
        return clients_find_request(client, xid, type, now)->waited_us;
    };
    asks(DISCOVER, 7);
    now += 100;
    EXPECT_EQ(waited(7, OFFER), 100);
    asks(REQUEST, 7);
    now += 50;
    EXPECT_EQ(waited(7, OFFER), 150);
    EXPECT_EQ(waited(7, ACK), 50);
    EXPECT_EQ(waited(8, ACK), -1);
    asks(REQUEST, 9);
    EXPECT_EQ(waited(7, ACK), -1) << "the client has gone on";
    EXPECT_EQ(waited(7, OFFER), 150);
    EXPECT_EQ(clients_find_request(client, 9, ACK, now)->vlan, 10);
}

// ---- The table ----

client_address numbered(std::uint32_t number) {
    return {2,
            1,
            static_cast<std::uint8_t>(number >> 24),
            static_cast<std::uint8_t>(number >> 16),
            static_cast<std::uint8_t>(number >> 8),
            static_cast<std::uint8_t>(number)};
}

TEST_F(ClientBook, HoldsThousandsAndThenTheLastOnes) {
    for (std::uint32_t i = 0; i < 8000; ++i) clients_note_request({numbered(i), i, DISCOVER, 10, 5121, start + i});
    EXPECT_GT(clients_all(start).size(), 7800U);
    for (std::uint32_t i = 8000; i < 200000; ++i) clients_note_request({numbered(i), i, DISCOVER, 10, 5121, start + i});
    EXPECT_THAT(clients_all(start), SizeIs(16384));
    EXPECT_EQ(clients_all(start).front().client, numbered(199999)) << "the one heard of last stands first";
    EXPECT_TRUE(clients_look(numbered(199999), start).has_value());
    EXPECT_FALSE(clients_look(numbered(0), start).has_value());
    clients_forget();
    EXPECT_THAT(clients_all(start), IsEmpty());
}

TEST_F(ClientBook, ClocksThatAreSetBackHarmNothing) {
    asks(DISCOVER, 7);
    now -= 1000 * second;
    EXPECT_EQ(look().unanswered_us, 0);
    gets(OFFER, 7);
    asks(REQUEST, 7);
    EXPECT_EQ(look().phase, client_phase::asking);
    EXPECT_GE(look().unanswered_us, 0);
}

}  // namespace
