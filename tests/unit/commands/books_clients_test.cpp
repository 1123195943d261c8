// SPDX-License-Identifier: Apache-2.0
// How clients stand, in words.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/clock.h"
#include "books/books.h"
#include "cli_box.h"
#include "commands/books_clients.h"

namespace {

using namespace ravo::cli;
using namespace ravo::platform;
using cli_box::shell;

constexpr std::int64_t second = 1000000;

client_view client_in(client_phase phase, std::uint32_t address = 0) {
    client_view out;
    out.client = {2, 0, 0, 0, 0, 1};
    out.phase = phase;
    out.vlan = 10;
    out.port_ifindex = 5121;
    out.address = address;
    out.server = address == 0 ? 0 : inet_addr("192.0.2.11");
    return out;
}

TEST(Clients, AreToldInWords) {
    const std::uint32_t address = inet_addr("10.10.0.9");
    const struct {
        client_phase phase;
        std::uint32_t address;
        std::string word, text, sentence;
    } rows[] = {
        {client_phase::asking, 0, "asking", "asking", "is asking, and waits for an answer."},
        {client_phase::offered, address, "offered", "offered 10.10.0.9 by 192.0.2.11",
         "was offered 10.10.0.9 by 192.0.2.11."},
        {client_phase::bound, address, "bound", "has 10.10.0.9 from 192.0.2.11", "has 10.10.0.9 from 192.0.2.11."},
        {client_phase::refused, 0, "refused", "refused", "was refused."},
        {client_phase::released, address, "released", "released 10.10.0.9", "released 10.10.0.9."},
        {client_phase::declined, address, "declined", "declined 10.10.0.9", "declined 10.10.0.9."},
        {client_phase::informed, 0, "informed", "informed", "was informed."},
    };
    for (const auto &row : rows) {
        const client_view client = client_in(row.phase, row.address);
        EXPECT_EQ(client_state_word(client), row.word);
        EXPECT_EQ(client_state_text(client), row.text);
        EXPECT_EQ(client_sentence(client), "Client 02:00:00:00:00:01 in VLAN 10 on port 1/1 " + row.sentence);
    }
}

TEST(Clients, WithoutAnAnswerFor3sAskInVain) {
    client_view client = client_in(client_phase::asking);
    client.unanswered_us = 3 * second - 1;
    EXPECT_EQ(client_state_text(client), "asking");
    client.unanswered_us = 3 * second;
    EXPECT_EQ(client_state_word(client), "no-answer");
    EXPECT_EQ(client_state_text(client), "no answer for 3 s");
    EXPECT_EQ(client_sentence(client), "Client 02:00:00:00:00:01 in VLAN 10 on port 1/1 has had no answer for 3 s.");
    client.vlan = 0;
    client.port_ifindex = 0;
    EXPECT_EQ(client_sentence(client), "Client 02:00:00:00:00:01 has had no answer for 3 s.");
}

TEST(Clients, AgesAreShort) {
    EXPECT_EQ(age_text(-5), "0s");
    EXPECT_EQ(age_text(59 * second), "59s");
    EXPECT_EQ(age_text(60 * second), "1m");
    EXPECT_EQ(age_text(3600 * second), "1h");
    EXPECT_EQ(age_text(49 * 3600 * second), "2d");
}

struct ClientsShown : testing::Test {
    ClientsShown() {
        books_close();
        clients_forget();
        EXPECT_TRUE(books_set_recorder(100));
    }
    static void note(std::uint8_t client, relay_outcome outcome, std::uint8_t op = 1, std::uint8_t type = 1) {
        std::vector<std::uint8_t> bytes(240);
        bytes[0] = op;
        bytes[28] = 2;
        bytes[33] = client;
        if (op == 2) bytes[16] = 10;
        bytes.insert(bytes.end(), {53, 1, type, 255});
        // Messages of one microsecond have no order.
        for (const std::int64_t begun = wall_clock_us(); wall_clock_us() == begun;) continue;
        books_open(10, 5121, {}, bytes);
        outcome_record(outcome);
        books_close();
    }
};

TEST_F(ClientsShown, ALineEachWithWhereItIsAndHowItStands) {
    note(1, OUTCOME_RELAYED);
    note(1, OUTCOME_DELIVERED, 2, 2);
    note(2, OUTCOME_NO_SERVER);
    note(3, OUTCOME_NO_OPTION82, 2, 5);
    shell s(2);
    EXPECT_EQ(s.print("show ip dhcp relay client"),
              "Client             VLAN  Port    State                                     Heard\n"
              "02:00:00:00:00:03     -  -       only replies to it were seen              0s\n"
              "02:00:00:00:00:02    10  1/1     asking                                    0s\n"
              "02:00:00:00:00:01    10  1/1     offered 10.0.0.0                          0s\n");
}

TEST_F(ClientsShown, ItsPageBeginsWithItsState) {
    note(1, OUTCOME_NO_SERVER);
    shell s(2);
    const std::string page = s.print("show ip dhcp relay client 02:00:00:00:00:01");
    EXPECT_EQ(page.substr(0, page.find("\n20")),
              "Client 02:00:00:00:00:01 in VLAN 10 on port 1/1 is asking, and waits for an answer.\n"
              "Its last request was not relayed: no-server (the interface has no server for it).\n"
              "Messages of 02:00:00:00:00:01, newest first:");
}

TEST_F(ClientsShown, ItsStateIsToldWhenItsMessagesAreOutOfTheRecorder) {
    note(1, OUTCOME_RELAYED);
    EXPECT_TRUE(books_set_recorder(100));
    shell s(2);
    EXPECT_EQ(s.print("show ip dhcp relay client 02:00:00:00:00:01"),
              "Client 02:00:00:00:00:01 in VLAN 10 on port 1/1 is asking, and waits for an answer.\n"
              "No message of client 02:00:00:00:00:01 is in the recorder\n");
    EXPECT_EQ(s.print("show ip dhcp relay client"),
              "Client             VLAN  Port    State                                     Heard\n"
              "02:00:00:00:00:01    10  1/1     asking                                    0s\n");
}

TEST_F(ClientsShown, AreForgottenOneByOneOrAll) {
    note(1, OUTCOME_RELAYED);
    note(2, OUTCOME_RELAYED);
    note(3, OUTCOME_RELAYED);
    shell s(15);
    EXPECT_EQ(s.run("clear ip dhcp relay client 0200.0000.0001"), 0);
    EXPECT_EQ(s.print("show ip dhcp relay client 02:00:00:00:00:01"),
              "No message of client 02:00:00:00:00:01 is in the recorder\n");
    EXPECT_EQ(s.print("show ip dhcp relay client | include : | count"), "2\n");
    EXPECT_EQ(s.print("clear ip dhcp relay client 1"),
              "% \"1\" is no hardware address; give it as 02:00:00:00:00:01, 02-00-00-00-00-01 or 0200.0000.0001\n");
    EXPECT_EQ(s.run("clear ip dhcp relay client"), 0);
    EXPECT_EQ(s.print("show ip dhcp relay client"),
              "Client             VLAN  Port    State                                     Heard\n");
}

TEST_F(ClientsShown, AreOfferedWhereAnAddressIsTyped) {
    note(1, OUTCOME_RELAYED);
    note(0xAB, OUTCOME_RELAYED);
    shell s(15);
    for (const char *command :
         {"show ip dhcp relay client ", "clear ip dhcp relay client ", "monitor ip dhcp relay mac "}) {
        EXPECT_THAT(ravo::cli::session_complete(*s.session, command),
                    testing::IsSupersetOf({"02:00:00:00:00:01", "02:00:00:00:00:ab"}));
        EXPECT_THAT(ravo::cli::session_complete(*s.session, std::string(command) + "02:00:00:00:00:A"),
                    testing::ElementsAre("02:00:00:00:00:ab"));
    }
    for (int i = 0; i < 150; ++i) note(static_cast<std::uint8_t>(i), OUTCOME_RELAYED);
    EXPECT_THAT(ravo::cli::session_complete(*s.session, "show ip dhcp relay client "), testing::SizeIs(100))
        << "no more than can be looked through";
}

}  // namespace
