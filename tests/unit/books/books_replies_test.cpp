// SPDX-License-Identifier: Apache-2.0
// Replies in the books: which request each answers, who gave it and what, and that a second answer is one.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "books/books.h"
#include "books/client_book.h"
#include "books/server_book.h"

namespace {

using namespace ravo::platform;
using octets = std::vector<std::uint8_t>;

constexpr std::uint8_t discover = 1, offer = 2, request = 3, ack = 5, release = 7;
constexpr std::uint32_t port_1_1 = 5121;
const std::uint32_t first = inet_addr("192.0.2.11"), second = inet_addr("192.0.2.12");
const std::uint32_t leased = inet_addr("10.10.0.9");

octets message(std::uint8_t op, std::uint8_t type, std::uint32_t address = 0, std::uint32_t identifier = 0) {
    octets out(240);
    out[0] = op;
    out[7] = 0x2A;
    out[28] = 2;
    std::memcpy(&out[16], &address, sizeof address);
    out.insert(out.end(), {53, 1, type});
    if (identifier != 0) {
        out.insert(out.end(), {54, 4, 0, 0, 0, 0});
        std::memcpy(&out[out.size() - 4], &identifier, sizeof identifier);
    }
    out.push_back(255);
    return out;
}

// A frame's headers, as far as the books read them.
octets frame_from(std::uint32_t source, bool tagged = false) {
    octets out(14 + 20);
    if (tagged) {
        out.insert(out.end(), 4, 0);
        out[12] = 0x81;
    }
    std::memcpy(&out[out.size() - 8], &source, sizeof source);
    return out;
}

book_entry newest() {
    book_entry out;
    books_each_recorded([&](const book_entry &entry) {
        if (out.number == 0) out = entry;
    });
    return out;
}

struct BooksReplies : testing::Test {
    BooksReplies() {
        books_close();
        books_clear_counters();
        clients_forget();
        servers_clear();
        EXPECT_TRUE(books_set_recorder(16));
    }
    static void ask(std::uint8_t type, std::uint32_t chosen = 0) {
        const octets bytes = message(1, type, 0, chosen);
        books_open(10, port_1_1, {}, bytes);
        outcome_server(first);
        outcome_server(second);
        outcome_record(OUTCOME_RELAYED);
        books_close();
    }
    static book_entry answer(std::uint8_t type, std::uint32_t server, relay_outcome outcome,
                             std::uint32_t identifier = 0, bool tagged = false) {
        const octets bytes = message(2, type, leased, identifier);
        const octets frame = frame_from(server, tagged);
        books_open(99, 5129, frame, bytes);
        outcome_record(outcome);
        books_close();
        return newest();
    }
};

TEST_F(BooksReplies, TellWhoGaveThemAndWhat) {
    ask(discover);
    book_entry told = answer(offer, first, OUTCOME_DELIVERED, first);
    EXPECT_EQ(told.server, first);
    EXPECT_EQ(told.address, leased);
    told = answer(offer, second, OUTCOME_DELIVERED, 0, /*tagged=*/true);
    EXPECT_EQ(told.server, second);
    // What comes from elsewhere is that server's which it names in option 54.
    EXPECT_EQ(answer(offer, inet_addr("203.0.113.1"), OUTCOME_DELIVERED, second).server, second);
    EXPECT_EQ(answer(offer, inet_addr("203.0.113.1"), OUTCOME_DELIVERED).server, inet_addr("203.0.113.1"));
    ask(request);
    EXPECT_EQ(newest().server, 0U) << "a request is no server's";
}

TEST_F(BooksReplies, ASecondAnswerIsAlreadyAnswered) {
    ask(discover);
    EXPECT_EQ(answer(offer, first, OUTCOME_UNKNOWN_TRANSACTION).outcome, OUTCOME_UNKNOWN_TRANSACTION)
        << "nobody's was delivered";
    EXPECT_EQ(answer(offer, first, OUTCOME_DELIVERED).outcome, OUTCOME_DELIVERED);
    EXPECT_EQ(answer(offer, second, OUTCOME_UNKNOWN_TRANSACTION).outcome, OUTCOME_ALREADY_ANSWERED);
    EXPECT_EQ(answer(offer, second, OUTCOME_CIRCUIT_ID).outcome, OUTCOME_CIRCUIT_ID) << "other refusals stay";
    EXPECT_EQ(books_total().by_outcome[OUTCOME_ALREADY_ANSWERED], 1U);
    EXPECT_EQ(books_total().by_outcome[OUTCOME_UNKNOWN_TRANSACTION], 1U);
    EXPECT_EQ(books_of_vlan(99).by_outcome[OUTCOME_ALREADY_ANSWERED], 1U);
}

TEST_F(BooksReplies, AnAnswerIsKnownAsOrdinaryWhileItIsInHand) {
    EXPECT_FALSE(books_answered_already());
    ask(discover);
    answer(offer, first, OUTCOME_DELIVERED);
    const octets late = message(2, offer, leased);
    books_open(99, 5129, {}, late);
    EXPECT_TRUE(books_answered_already());
    books_close();
    const octets asked = message(1, discover);
    books_open(10, port_1_1, {}, asked);
    EXPECT_FALSE(books_answered_already()) << "a request is not";
    books_close();
}

TEST_F(BooksReplies, CountForTheServerThatGaveThem) {
    ask(discover);
    answer(offer, first, OUTCOME_DELIVERED);
    answer(offer, second, OUTCOME_UNKNOWN_TRANSACTION);
    ask(request, first);
    answer(ack, first, OUTCOME_DELIVERED);
    answer(ack, first, OUTCOME_NO_OPTION82);
    ask(release, first);
    const std::vector<server_figures> servers = servers_all();
    ASSERT_EQ(servers.size(), 2U);
    EXPECT_EQ(servers[0].vlan, 10) << "the VLAN of the client, wherever the reply comes in";
    EXPECT_EQ(servers[0].asked, 2U) << "nobody answers a RELEASE";
    EXPECT_EQ(servers[0].answered, 2U) << "what was refused is no answer";
    EXPECT_EQ(servers[1].asked, 1U) << "the client has chosen the other";
    EXPECT_EQ(servers[1].answered, 1U) << "an answer that came second is one";
}

TEST_F(BooksReplies, OfNoVlanCountForTheirClientsVlan) {
    const octets bytes = message(2, offer, leased);
    books_open(0, 0, {}, bytes);
    books_client_vlan(10);
    outcome_record(OUTCOME_DELIVERED);
    books_close();
    EXPECT_EQ(books_of_vlan(10).by_outcome[OUTCOME_DELIVERED], 1U);
    EXPECT_EQ(books_of_vlan(10).by_type[offer], 1U);
    EXPECT_EQ(newest().vlan, 0);
    EXPECT_EQ(newest().client_vlan, 10);
}

TEST_F(BooksReplies, TypesAreCountedByVlanAndInTotal) {
    ask(discover);
    ask(request);
    ask(request);
    ask(0);
    ask(200);
    EXPECT_EQ(books_of_vlan(10).by_type[discover], 1U);
    EXPECT_EQ(books_of_vlan(10).by_type[request], 2U);
    EXPECT_EQ(books_of_vlan(10).by_type[0], 2U) << "no type, or one that there is not";
    EXPECT_EQ(books_total().by_type, books_of_vlan(10).by_type);
}

}  // namespace
