// SPDX-License-Identifier: Apache-2.0
// Messages whose copies go out later: the books are as if nobody had waited, and know what was refused.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "books/books.h"
#include "books/client_book.h"
#include "books/server_book.h"
#include "log/log_subject.h"

namespace {

using namespace ravo::platform;
using testing::ElementsAre;
using testing::IsEmpty;
using octets = std::vector<std::uint8_t>;

constexpr std::uint32_t first_server = 0x0B0200C0, second_server = 0x0C0200C0;

struct refusal {
    std::size_t place;
    std::uint32_t server;
};

std::vector<refusal> refusals;        // that the next end of the waiting brings
std::vector<std::uint16_t> taken_up;  // VLANs of the messages that lines were about
int ends = 0;

void end_waiting() {
    ++ends;
    for (const refusal &each : refusals) books_copy_refused(each.place, each.server);
    for (const refusal &each : refusals) books_take_up(each.place, [] { taken_up.push_back(log_subject_now().vlan); });
    refusals.clear();
    books_enter_waiting();
}

octets message(std::uint8_t op, std::uint8_t type) {
    octets out(240);
    out[0] = op;
    out[7] = 1;
    out.insert(out.end(), {53, 1, type, 255});
    return out;
}

// "10 relayed 2": VLAN, outcome and number of servers of what the recorder holds, oldest first.
std::vector<std::string> recorded() {
    std::vector<std::string> out;
    books_each_recorded([&](const book_entry &entry) {
        out.insert(out.begin(), std::to_string(entry.vlan) + " " +
                                    std::string(outcome_word(static_cast<relay_outcome>(entry.outcome))) + " " +
                                    std::to_string(entry.servers_count));
    });
    return out;
}

struct BooksWaiting : testing::Test {
    octets frame = {1, 2, 3};
    BooksWaiting() {
        books_on_wait(end_waiting);
        books_close();
        clients_forget();
        servers_clear();
        books_clear_counters();
        refusals.clear();
        taken_up.clear();
        ends = 0;
        EXPECT_TRUE(books_set_recorder(16));
    }
    ~BooksWaiting() override {
        books_settle_waiting();
        books_on_wait(nullptr);
    }
    void relay(std::uint16_t vlan, const std::vector<std::uint32_t> &servers, bool waits = true) const {
        books_open(vlan, 5121, frame, message(1, 1));
        for (const std::uint32_t server : servers) {
            if (waits) (void)books_wait();
            outcome_server(server);
        }
        outcome_record(OUTCOME_RELAYED);
        books_close();
    }
    void deliver(std::uint16_t vlan) const {
        books_open(vlan, 5121, frame, message(2, 2));
        (void)books_wait();
        outcome_record(OUTCOME_DELIVERED);
        books_close();
    }
};

TEST_F(BooksWaiting, AMessageThatWaitsIsInNoBookBeforeItsEnd) {
    relay(10, {first_server});
    EXPECT_EQ(books_total().received, 0U);
    EXPECT_THAT(recorded(), IsEmpty());
    books_look();
    EXPECT_EQ(books_total().by_outcome[OUTCOME_RELAYED], 1U);
    EXPECT_EQ(books_of_vlan(10).sent, 1U);
    EXPECT_THAT(recorded(), ElementsAre("10 relayed 1"));
    books_look();
    EXPECT_EQ(ends, 1) << "nothing waits any more";
}

TEST_F(BooksWaiting, WhatDoesNotWaitComesBehindWhatDoes) {
    relay(10, {first_server});
    relay(11, {first_server, second_server});
    books_drop(OUTCOME_TRUNCATED, 12, 5121, frame);
    EXPECT_THAT(recorded(), ElementsAre("10 relayed 1", "11 relayed 2", "12 truncated 0"));
    EXPECT_EQ(ends, 1);
}

TEST_F(BooksWaiting, AReplyFindsTheRequestThatWaitedBeforeIt) {
    relay(10, {first_server});
    deliver(10);
    books_look();
    EXPECT_THAT(recorded(), ElementsAre("10 relayed 1", "10 delivered 0"));
    std::int32_t answered = -1;
    books_each_recorded([&](const book_entry &entry) {
        if (entry.op == 2) answered = entry.answered_us;
    });
    EXPECT_GE(answered, 0);
}

TEST_F(BooksWaiting, ARefusedCopyWasNotSent) {
    relay(10, {first_server, second_server});
    relay(11, {first_server});
    deliver(12);
    deliver(13);
    refusals = {{0, first_server}, {1, first_server}, {2, 0}};
    books_look();
    EXPECT_THAT(recorded(), ElementsAre("10 relayed 1", "11 send-failed 0", "12 send-failed 0", "13 delivered 0"));
    EXPECT_EQ(books_total().sent, 2U);
    EXPECT_THAT(taken_up, ElementsAre(10, 11, 12)) << "lines are about the message whose copy it was";
    books_each_recorded([](const book_entry &entry) {
        if (entry.vlan != 10) return;
        EXPECT_EQ(entry.servers[0], second_server);
    });
}

TEST_F(BooksWaiting, RefusedInHandAllCopiesMakeAFailure) {
    const octets bytes = message(1, 1);
    books_open(10, 5121, frame, bytes);
    EXPECT_EQ(books_wait(), 0U);
    outcome_server(first_server);
    refusals = {{0, first_server}};
    books_settle_waiting();  // a line is logged while it is in hand
    EXPECT_THAT(taken_up, ElementsAre(10));
    outcome_record(OUTCOME_RELAYED);  // the relay does not know yet
    books_close();
    EXPECT_THAT(recorded(), ElementsAre("10 send-failed 0"));
    EXPECT_EQ(books_total().sent, 0U);
}

TEST_F(BooksWaiting, TheMessageInHandStaysInHandWhileOthersAreEntered) {
    relay(10, {first_server});
    const octets bytes = message(1, 1);
    books_open(11, 5122, frame, bytes);
    outcome_record(OUTCOME_NO_SERVER);
    refusals = {{0, first_server}};
    books_settle_waiting();
    EXPECT_EQ(books_port_in_hand(), 5122U);
    EXPECT_EQ(books_outcome_in_hand(), OUTCOME_NO_SERVER);
    EXPECT_EQ(log_subject_now().vlan, 11);
    books_close();
    EXPECT_THAT(recorded(), ElementsAre("10 send-failed 0", "11 no-server 0"));
}

TEST_F(BooksWaiting, NobodyWaitsWhileSomebodyWatches) {
    const octets bytes = message(1, 1);
    const int id = books_watch([](const book_entry &, std::span<const std::uint8_t>) {});
    books_open(10, 5121, frame, bytes);
    EXPECT_FALSE(books_may_wait());
    books_unwatch(id);
    EXPECT_TRUE(books_may_wait());
    books_close();
    EXPECT_FALSE(books_may_wait()) << "there is none in hand";
}

TEST_F(BooksWaiting, OnlySoManyMayWait) {
    for (std::size_t i = 0; i < books_waiting_limit; ++i) relay(10, {first_server});
    const octets bytes = message(1, 1);
    books_open(11, 5121, frame, bytes);
    EXPECT_FALSE(books_may_wait());
    books_settle_waiting();
    EXPECT_TRUE(books_may_wait());
    EXPECT_EQ(books_total().received, books_waiting_limit);
    books_close();
}

}  // namespace
