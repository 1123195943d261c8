// SPDX-License-Identifier: Apache-2.0
// A client's page and the list of clients: what they print, whole, and what they refuse.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "books_box.h"
#include "commands/books_clients.h"
#include "commands/books_text.h"

namespace {

using namespace ravo::cli;
using namespace ravo::platform;
using namespace books_box;
using cli_box::shell;
using testing::ElementsAre;
using testing::MatchesRegex;

TEST_F(BooksCommands, ClientsMessagesNewestFirst) {
    take({.servers = {"192.0.2.11", "192.0.2.12"}});
    take({.client = 2});
    take({.op = 2,
          .type = 2,
          .vlan = 99,
          .port = 5129,
          .outcome = OUTCOME_CIRCUIT_ID,
          .option82 = {1, 6, 0, 4, 0x2C, 0x01, 2, 7, 2, 8, 0, 6, 2, 0, 0, 0, 10, 1}});
    take({.type = 3, .outcome = OUTCOME_POLICY_DROP, .option82 = {1, 2, 0xAB, 0xCD}});
    take({.type = 0,
          .vlan = 0,
          .port = 0,
          .servers = {"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4", "10.0.0.5", "10.0.0.6", "10.0.0.7", "10.0.0.8",
                      "10.0.0.9"}});
    shell s(2);
    for (const char *mac : {"02:00:00:00:00:01", "02-00-00-00-00-01", "0200.0000.0001"}) {
        const std::vector<std::string> lines = messages_in(s.print(std::string("show ip dhcp relay client ") + mac));
        ASSERT_EQ(lines.size(), 4u);
        EXPECT_EQ(without_time(lines[0]),
                  "request 02:00:00:00:00:01 xid 2A000000 vlan - port -: relayed to 10.0.0.1, 10.0.0.2, 10.0.0.3, "
                  "10.0.0.4, 10.0.0.5, 10.0.0.6, 10.0.0.7, 10.0.0.8 and 1 more (relayed to servers)");
        EXPECT_EQ(without_time(lines[1]),
                  "REQUEST 02:00:00:00:00:01 xid 2A000000 vlan 10 port 1/1: policy-drop (option 82 of another "
                  "relay, policy drop), option 82 circuit id abcd");
        EXPECT_THAT(without_time(lines[2]),
                    MatchesRegex("OFFER 02:00:00:00:00:01 xid 2A000000 vlan 99 port 1/9: circuit-id .reply with "
                                 "another circuit id., [0-9]+\\.[0-9]{3} ms after its request, option 82 VLAN 300 "
                                 "port 2/7 MAC 02:00:00:00:0a:01"));
        EXPECT_EQ(without_time(lines[3]),
                  "DISCOVER 02:00:00:00:00:01 xid 2A000000 vlan 10 port 1/1: relayed to 192.0.2.11, 192.0.2.12 "
                  "(relayed to servers)");
    }
}

// What the channel could not read as a message is shown to who asks for its sender, but makes no client.
TEST_F(BooksCommands, FramesThatAreNoMessageBelongToTheirSender) {
    const octets frame = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 2, 0, 0, 0, 0, 7, 8, 0};
    books_drop(OUTCOME_BAD_UDP_CHECKSUM, 10, port_1_1, frame);
    take({.op = 3, .type = 0, .client = 7, .outcome = OUTCOME_UNKNOWN_OPERATION});
    shell s(2);
    const std::vector<std::string> lines = messages_in(s.print("show ip dhcp relay client 02:00:00:00:00:07"));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(without_time(lines[0]),
              "message 02:00:00:00:00:07 xid 2A000000 vlan 10 port 1/1: unknown-operation (neither request nor "
              "reply)");
    EXPECT_EQ(without_time(lines[1]), "- 02:00:00:00:00:07 vlan 10 port 1/1: bad-udp-checksum (wrong UDP checksum)");
    const std::vector<std::string> clients = lines_of(s.print("show ip dhcp relay client"));
    ASSERT_EQ(clients.size(), 2u);
    EXPECT_THAT(clients[1], MatchesRegex("02:00:00:00:00:07    10  1/1     only replies to it were seen  .* [0-9]+s"));
}

TEST_F(BooksCommands, LocalBroadcastIsToldBesideTheOutcome) {
    take({.outcome = OUTCOME_UNTRUSTED_OPTION82, .rebroadcast = true});
    take({.outcome = OUTCOME_REBROADCAST});
    shell s(2);
    const std::vector<std::string> lines = messages_in(s.print("show ip dhcp relay client 02:00:00:00:00:01"));
    ASSERT_EQ(lines.size(), 2u);
    const std::string head = "DISCOVER 02:00:00:00:00:01 xid 2A000000 vlan 10 port 1/1: ";
    EXPECT_EQ(without_time(lines[0]), head + "rebroadcast (broadcast again locally)");
    EXPECT_EQ(without_time(lines[1]), head +
                                          "untrusted-option82 (option 82 from a client on an untrusted interface), "
                                          "broadcast again locally before");
}

// Where no interface has its VLAN, the tag is what somebody who looks for the message knows.
TEST_F(BooksCommands, TagIsToldWhereThereIsNoInterface) {
    take({.vlan = 0, .outcome = OUTCOME_UNKNOWN_VLAN, .tag = {.protocol = 0x8100, .tci = 0xA309}});
    take({.vlan = 0, .outcome = OUTCOME_UNKNOWN_VLAN, .tag = {.protocol = 0x8100, .tci = 0xA000}});
    take({.vlan = 20, .tag = {.protocol = 0x8100, .tci = 0xA000}});
    shell s(2);
    const std::vector<std::string> lines = messages_in(s.print("show ip dhcp relay client 02:00:00:00:00:01"));
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_THAT(lines[0], testing::HasSubstr(" vlan 20 port 1/1: relayed"));
    EXPECT_THAT(lines[1], testing::HasSubstr(" vlan - port 1/1: unknown-vlan"));
    EXPECT_THAT(lines[2], testing::HasSubstr(" vlan 777 port 1/1: unknown-vlan"));
}

TEST_F(BooksCommands, UnknownClientIsNoError) {
    shell s;
    EXPECT_EQ(s.run("show ip dhcp relay client 02:00:00:00:00:77"), 0);
    EXPECT_EQ(s.text, "No message of client 02:00:00:00:00:77 is in the recorder\n");
}

TEST_F(BooksCommands, RefuseWhatIsNoHardwareAddress) {
    shell s;
    for (const char *bad : {"x", "02:00:00:00:00", "02:00:00:00:00:0g", "02:00-00:00:00:01", "020000000001",
                            "0200.0000.001", "02:00:00:00:00:01:", "0200:0000:0001", "02.00.00.00.00.01"}) {
        EXPECT_EQ(s.run(std::string("show ip dhcp relay client ") + bad), 1) << bad;
        EXPECT_EQ(std::exchange(s.text, {}), "% \"" + std::string(bad) +
                                                 "\" is no hardware address; give it as 02:00:00:00:00:01, "
                                                 "02-00-00-00-00-01 or 0200.0000.0001\n");
    }
}

TEST_F(BooksCommands, TimesAreWhole) {
    EXPECT_EQ(time_text(1717747750123456), "2024-06-07 08:09:10.123");
    EXPECT_EQ(time_text_utc(1717747750003456), "2024-06-07T08:09:10.003456Z");
    EXPECT_EQ(milliseconds_text(0), "0.000");
    EXPECT_EQ(milliseconds_text(1234567), "1234.567");
}

struct foreign_option {
    octets data;
    std::string text;
};

TEST_F(BooksCommands, OptionsOfOtherRelaysAreTakenApart) {
    const std::vector<foreign_option> rows = {
        {{1, 4, 'p', 'o', 'r', 't', 2, 2, 0xAB, 0x01}, "circuit id \"port\" remote id ab01"},
        {{2, 1, 0}, "remote id 00"},
        {{5, 4, 10, 0, 0, 1, 152, 0}, "sub-option 5 0a000001 sub-option 152 empty"},
        {{1, 3, '"', '\\', 'a'}, "circuit id 225c61"},
        {{1}, "01 (malformed)"},
        {{1, 2, 0}, "010200 (malformed)"},
        {{1, 1, 7, 2}, "01010702 (malformed)"},
        {{1, 6, 0, 4, 10, 0, 1, 3, 2, 8, 0, 6, 2, 0, 0, 0, 10, 1, 5, 1, 9},
         "circuit id 00040a000103 remote id 00060200"
         "00000a01 sub-option 5 09"},
    };
    for (const foreign_option &row : rows) {
        ASSERT_TRUE(books_set_recorder(4));
        take({.option82 = row.data});
        shell s(2);
        const std::string text = messages_in(s.print("show ip dhcp relay client 02:00:00:00:00:01")).at(0);
        EXPECT_EQ(without_time(text),
                  "DISCOVER 02:00:00:00:00:01 xid 2A000000 vlan 10 port 1/1: relayed (relayed to servers), option 82 " +
                      row.text);
    }
}

TEST_F(BooksCommands, LongOptionsOfOtherRelaysAreCut) {
    const auto shown = [](std::uint8_t first, std::size_t behind) {
        EXPECT_TRUE(books_set_recorder(4));
        octets data = {1, first};
        data.insert(data.end(), first, 'a');
        data.insert(data.end(), behind, 0);
        take({.option82 = data});
        shell s(2);
        const std::string text = messages_in(s.print("show ip dhcp relay client 02:00:00:00:00:01")).at(0);
        return text.substr(text.find(", option 82 ")) + "\n";
    };
    EXPECT_EQ(shown(30, 0), ", option 82 circuit id \"" + std::string(30, 'a') + "\"\n");
    EXPECT_EQ(shown(29, 2), ", option 82 circuit id \"" + std::string(29, 'a') + "\" ...\n");
    EXPECT_EQ(shown(28, 3), ", option 82 circuit id \"" + std::string(28, 'a') + "\" sub-option 0 empty ...\n");
    std::string digits;
    for (int i = 0; i < 30; ++i) digits += "61";
    EXPECT_EQ(shown(31, 0), ", option 82 circuit id " + digits + "...\n");
    EXPECT_EQ(shown(250, 0), ", option 82 circuit id " + digits + "...\n");
}

TEST_F(BooksCommands, EmptyOption82IsTold) {
    octets bytes(240);
    bytes[0] = 1;
    bytes.insert(bytes.end(), {53, 1, 1, 82, 0, 255});
    books_open(10, port_1_1, {}, bytes);
    books_close();
    shell s(2);
    EXPECT_THAT(s.print("show ip dhcp relay client 00:00:00:00:00:00"), testing::EndsWith(", option 82 empty\n"));
}

// Only the very form that this relay writes is decoded; anything else, a byte shorter or other, is shown as it is.
TEST_F(BooksCommands, OnlyOptionsOfThisRelaysFormAreDecoded) {
    const octets own = {1, 6, 0, 4, 10, 0, 1, 3, 2, 8, 0, 6, 2, 0, 0, 0, 10, 1};
    book_entry entry;
    entry.has_option82 = true;
    entry.option82_length = static_cast<std::uint8_t>(own.size());
    std::copy(own.begin(), own.end(), entry.option82.begin());
    const auto decoded = read_relay_information(entry);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->vlan, 10);
    EXPECT_EQ(decoded->module, 1);
    EXPECT_EQ(decoded->port, 3);
    for (const std::size_t at : {0u, 1u, 2u, 3u, 8u, 9u, 10u, 11u}) {
        book_entry other = entry;
        other.option82[at] ^= 0x10;
        EXPECT_FALSE(read_relay_information(other)) << at;
    }
    for (std::uint8_t size = 0; size <= 32; ++size) {
        entry.option82_length = size;
        EXPECT_EQ(read_relay_information(entry).has_value(), size == own.size()) << int{size};
        EXPECT_EQ(hex_text(option82_kept(entry)).size(), 2u * size);
    }
}

}  // namespace
