// SPDX-License-Identifier: Apache-2.0
// The commands on the books of messages: what they print, whole, and what they refuse.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <initializer_list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "books/books.h"
#include "books/client_book.h"
#include "books/pcapng.h"
#include "books/server_book.h"
#include "cli_box.h"
#include "commands/books_clients.h"
#include "commands/books_text.h"
#include "relay_access.h"

namespace {

using namespace ravo::cli;
using namespace ravo::platform;
using cli_box::shell;
using testing::ElementsAre;
using testing::MatchesRegex;
using octets = std::vector<std::uint8_t>;

constexpr std::uint32_t port_1_1 = 5121, port_2_0 = 5184;

struct told {
    std::uint8_t op = 1;
    std::uint8_t type = 1;
    std::uint8_t client = 1;
    std::uint16_t vlan = 10;
    std::uint32_t port = port_1_1;
    relay_outcome outcome = OUTCOME_RELAYED;
    std::vector<const char *> servers = {};
    octets option82 = {};
    bool rebroadcast = false;
    book_tag tag = {};
};

void take(const told &what) {
    octets bytes(240);
    bytes[0] = what.op;
    bytes[7] = 0x2A;
    bytes[28] = 2;
    bytes[33] = what.client;
    if (what.type != 0) bytes.insert(bytes.end(), {53, 1, what.type});
    if (!what.option82.empty()) {
        bytes.insert(bytes.end(), {82, static_cast<std::uint8_t>(what.option82.size())});
        bytes.insert(bytes.end(), what.option82.begin(), what.option82.end());
    }
    bytes.push_back(255);
    books_open(what.vlan, what.port, {}, bytes, what.tag);
    if (what.rebroadcast) outcome_record(OUTCOME_REBROADCAST);
    for (const char *server : what.servers) outcome_server(inet_addr(server));
    outcome_record(what.outcome);
    books_close();
}

struct BooksCommands : testing::Test {
    BooksCommands() {
        books_close();
        books_clear_counters();
        clients_forget();
        servers_clear();
        EXPECT_TRUE(books_set_recorder(100));
        setenv("TZ", "UTC", 1);
    }
};

// A line without its time, which is checked apart.
std::string without_time(const std::string &line) {
    constexpr std::size_t size = sizeof "2024-06-07 08:09:10.123 " - 1;
    EXPECT_THAT(line.substr(0, size),
                MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} "));
    return line.substr(std::min(size, line.size()));
}

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> out;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = text.find('\n', at);
        if (end == std::string::npos) break;
        out.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return out;
}

// The messages of a client's page, a line each, behind what it says of the client.
std::vector<std::string> messages_in(const std::string &page) {
    std::vector<std::string> lines = lines_of(page);
    const auto head = std::find_if(lines.begin(), lines.end(), [](const std::string &line) {
        return line == "Messages of 02:00:00:00:00:01, newest first:" ||
               line == "Messages of 02:00:00:00:00:07, newest first:";
    });
    EXPECT_NE(head, lines.end()) << page;
    lines.erase(lines.begin(), head == lines.end() ? head : head + 1);
    return lines;
}

constexpr char empty_block[] =
    "  received                          0  messages that came in\n"
    "  sent                              0  copies sent on: to servers, to clients, local broadcasts\n"
    "  What became of them:\n";

TEST_F(BooksCommands, StatisticsOfNothing) {
    shell s(2);
    EXPECT_EQ(s.print("show ip dhcp relay statistics"), std::string("Total:\n") + empty_block);
    EXPECT_EQ(s.print("show ip dhcp relay statistics vlan 4094"),
              std::string("VLAN interface vlan4094:\n") + empty_block);
    EXPECT_EQ(s.print("show ip dhcp relay statistics port 1/63"), std::string("Port 1/63:\n") + empty_block);
}

TEST_F(BooksCommands, StatisticsInTotalPerVlanAndPerPort) {
    take({.servers = {"192.0.2.11", "192.0.2.12"}});
    take({.outcome = OUTCOME_HOP_LIMIT});
    books_drop(OUTCOME_UNKNOWN_VLAN, 0, port_2_0, {});
    const std::string vlan_block =
        "  received                          2  messages that came in\n"
        "  sent                              2  copies sent on: to servers, to clients, local broadcasts\n"
        "  What they were:\n"
        "  DISCOVER                          2\n"
        "  What became of them:\n"
        "  relayed                           1  relayed to servers\n"
        "  hop-limit                         1  passed too many relays\n";
    const std::string port_block =
        "  received                          1  messages that came in\n"
        "  sent                              0  copies sent on: to servers, to clients, local broadcasts\n"
        "  What became of them:\n"
        "  unknown-vlan                      1  no VLAN interface for its VLAN\n";
    shell s;
    EXPECT_EQ(s.print("show ip dhcp relay statistics"),
              "Total:\n"
              "  received                          3  messages that came in\n"
              "  sent                              2  copies sent on: to servers, to clients, local broadcasts\n"
              "  What they were:\n"
              "  DISCOVER                          2\n"
              "  What became of them:\n"
              "  relayed                           1  relayed to servers\n"
              "  unknown-vlan                      1  no VLAN interface for its VLAN\n"
              "  hop-limit                         1  passed too many relays\n"
              "\nVLAN interface vlan10:\n" +
                  vlan_block + "\nPort 1/1:\n" + vlan_block + "\nPort 2/0:\n" + port_block);
    EXPECT_EQ(s.print("show ip dhcp relay statistics vlan 10"), "VLAN interface vlan10:\n" + vlan_block);
    EXPECT_EQ(s.print("show ip dhcp relay statistics port 2/0"), "Port 2/0:\n" + port_block);
}

TEST_F(BooksCommands, LocalBroadcastsStandBesideTheOutcomes) {
    books_open(10, port_1_1, {}, {});
    outcome_record(OUTCOME_REBROADCAST);
    outcome_record(OUTCOME_NO_SERVER);
    shell s;
    books_close();
    EXPECT_EQ(s.print("show ip dhcp relay statistics vlan 10"),
              "VLAN interface vlan10:\n"
              "  received                          1  messages that came in\n"
              "  sent                              1  copies sent on: to servers, to clients, local broadcasts\n"
              "  local broadcasts                  1  copies broadcast again in their VLAN\n"
              "  What became of them:\n"
              "  no-server                         1  the interface has no server for it\n");
}

// What a session has not read yet is bounded (8 MiB), and a command's whole answer waits at once.
TEST_F(BooksCommands, AllVlansAndPortsFitIntoOneAnswer) {
    relay_outcome outcome = OUTCOME_NONE;
    for (std::uint16_t vlan = 1; vlan <= 4094; ++vlan)
        for (int i = 0; i < 10; ++i) {
            outcome = static_cast<relay_outcome>((outcome + 1) % OUTCOMES);
            take({.vlan = vlan, .port = port_1_1 + vlan % 2047u, .outcome = outcome});
        }
    static const relay_access access{};
    relay_access_register(&access);
    shell s(2);
    const std::string text = s.print("show ip dhcp relay statistics");
    EXPECT_LT(text.size(), std::size_t{8} << 20);
    EXPECT_THAT(text, testing::HasSubstr("\nVLAN interface vlan4094:\n  received                         10  "));
    EXPECT_THAT(text, testing::HasSubstr("\nPort 32/63:\n"));
    EXPECT_LT(s.print("show ip dhcp relay statistics | json").size(), std::size_t{8} << 20);
}

// What guards never did is left out of VLANs and ports, and told in the total.
TEST_F(BooksCommands, OutcomesOfGuardsAreToldWhereTheyAre) {
    take({.vlan = 10, .port = port_1_1, .outcome = OUTCOME_GUARD_CLIENTS});
    shell s(2);
    const std::string vlan = s.print("show ip dhcp relay statistics vlan 10 | json");
    EXPECT_THAT(vlan, testing::HasSubstr("\"guard-clients\": 1,"));
    EXPECT_THAT(vlan, testing::Not(testing::HasSubstr("guard-server")));
    EXPECT_THAT(vlan, testing::HasSubstr("\"port-limit\": 0,"));
    EXPECT_THAT(s.print("show ip dhcp relay statistics vlan 20 | json"), testing::Not(testing::HasSubstr("guard-")));
}

TEST_F(BooksCommands, ClearingStartsFromNothing) {
    take({});
    shell viewer(14);
    EXPECT_EQ(viewer.run("clear ip dhcp relay statistics"), 1) << "not for those who only look";
    EXPECT_EQ(books_total().received, 1u);
    shell s(15);
    EXPECT_EQ(s.run("clear ip dhcp relay statistics"), 0);
    EXPECT_EQ(s.print("show ip dhcp relay statistics"), std::string("Total:\n") + empty_block);
}

TEST_F(BooksCommands, RefuseWhatIsNoPortOrNoVlan) {
    shell s;
    for (const char *bad : {"1", "0/1", "1/0", "1/64", "256/1", "1/", "/1", "1/1/1", "-1/1", "1/+1", "x/y", "swp1"}) {
        EXPECT_EQ(s.run(std::string("show ip dhcp relay statistics port ") + bad), 1) << bad;
        EXPECT_EQ(std::exchange(s.text, {}),
                  "% \"" + std::string(bad) + "\" is no port; give module and port, such as 1/2\n");
    }
    EXPECT_EQ(s.run("show ip dhcp relay statistics vlan 4095"), 1);
    EXPECT_EQ(s.run("show ip dhcp relay statistics vlan 0"), 1);
}

TEST_F(BooksCommands, PortNamesAndNumbersBelongTogether) {
    for (std::uint32_t port = 5121; port < 5120 + 64 * 255; ++port) EXPECT_EQ(read_port_name(port_name(port)), port);
    EXPECT_EQ(port_name(5121), "1/1");
    EXPECT_EQ(port_name(5184), "2/0");
    EXPECT_EQ(port_name(8000), "46/0");  // a device that keeps its kernel number
    EXPECT_EQ(port_name(0), "-");
    EXPECT_EQ(port_name(17), "17");
}

// ---- Clients ----

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

TEST_F(BooksCommands, HardwareAddressesInEveryForm) {
    const hardware_address wanted = {0xAB, 0xCD, 0xEF, 0x01, 0x23, 0x45};
    for (const char *text : {"ab:cd:ef:01:23:45", "AB-CD-EF-01-23-45", "abCD.ef01.2345"})
        EXPECT_EQ(read_mac(text), wanted) << text;
    EXPECT_EQ(mac_text(wanted), "ab:cd:ef:01:23:45");
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

// ---- Monitor ----

// A session that can be in a command whose output goes on.
struct streaming_shell {
    std::string text;
    std::vector<int> ended;
    session_ptr session;
    bool gone = false;

    explicit streaming_shell(int privilege = 31) {
        session_output output;
        output.text = [this](std::string_view piece) {
            text += piece;
            return gone ? -1 : 0;
        };
        output.stream_end = [this](int result) { ended.push_back(result); };
        EXPECT_TRUE(cli_box::have_commands());
        session = session_open(std::move(output), privilege, "tester");
    }
};

std::vector<std::string> clients_in(const std::string &text) {
    std::vector<std::string> out;
    for (std::size_t at = text.find("02:00:00:00:00:"); at != std::string::npos;
         at = text.find("02:00:00:00:00:", at + 1))
        out.push_back(text.substr(at, 17));
    return out;
}

TEST_F(BooksCommands, MonitorShowsMessagesUntilInterrupted) {
    streaming_shell s;
    EXPECT_EQ(session_run(*s.session, "monitor ip dhcp relay"), 0);
    EXPECT_TRUE(session_streaming(*s.session));
    EXPECT_EQ(s.text, "");
    take({.servers = {"192.0.2.11"}});
    EXPECT_EQ(without_time(s.text),
              "DISCOVER 02:00:00:00:00:01 xid 2A000000 vlan 10 port 1/1: relayed to 192.0.2.11 (relayed to "
              "servers)\n");
    EXPECT_EQ(session_interrupt(*s.session), 0);
    EXPECT_FALSE(session_streaming(*s.session));
    s.text.clear();
    take({});
    EXPECT_EQ(s.text, "");
    EXPECT_EQ(session_interrupt(*s.session), 0) << "nothing to interrupt";
    EXPECT_TRUE(s.ended.empty());
}

TEST_F(BooksCommands, MonitorShowsWhatWasAskedFor) {
    const std::vector<std::pair<const char *, std::vector<std::string>>> rows = {
        {"mac 0200.0000.0002", {"02:00:00:00:00:02"}},
        {"vlan 20", {"02:00:00:00:00:02", "02:00:00:00:00:03"}},
        {"port 2/0", {"02:00:00:00:00:03"}},
        {"mac 02-00-00-00-00-02 vlan 20 port 1/1", {"02:00:00:00:00:02"}},
        {"mac 02:00:00:00:00:02 vlan 10", {}},
    };
    for (const auto &[words, wanted] : rows) {
        streaming_shell s;
        EXPECT_EQ(session_run(*s.session, "monitor ip dhcp relay " + std::string(words)), 0);
        take({.client = 1});
        take({.client = 2, .vlan = 20});
        take({.client = 3, .vlan = 20, .port = port_2_0});
        EXPECT_EQ(clients_in(s.text), wanted) << words;
    }
}

TEST_F(BooksCommands, MonitorGoesThroughItsFilter) {
    streaming_shell s;
    EXPECT_EQ(session_run(*s.session, "monitor ip dhcp relay | count hop-limit"), 0);
    take({});
    take({.outcome = OUTCOME_HOP_LIMIT});
    take({.outcome = OUTCOME_HOP_LIMIT});
    EXPECT_EQ(s.text, "");
    EXPECT_EQ(session_interrupt(*s.session), 0);
    EXPECT_EQ(s.text, "2\n");
    s.text.clear();
    EXPECT_EQ(session_run(*s.session, "show ip dhcp relay statistics vlan 20"), 0);
    EXPECT_EQ(s.text, std::string("VLAN interface vlan20:\n") + empty_block) << "the filter went with its command";
}

TEST_F(BooksCommands, MonitorsOfSeveralSessionsEndWithThem) {
    auto first = std::make_unique<streaming_shell>();
    streaming_shell second;
    EXPECT_EQ(session_run(*first->session, "monitor ip dhcp relay"), 0);
    EXPECT_EQ(session_run(*second.session, "monitor ip dhcp relay"), 0);
    first.reset();
    take({});
    EXPECT_EQ(clients_in(second.text).size(), 1u);
    second.gone = true;
    take({});
    take({});
    EXPECT_EQ(clients_in(second.text).size(), 2u) << "nothing more is sent to a session that is gone";
}

TEST_F(BooksCommands, MonitorNeedsASessionThatCanStayInIt) {
    shell s;
    EXPECT_EQ(s.run("monitor ip dhcp relay"), 1);
    EXPECT_EQ(s.text, "% This session cannot show messages as they come\n");
}

TEST_F(BooksCommands, CaptureEndsByItselfWhenItCannotBeWritten) {
    char folder[] = "/tmp/books_commands_test.XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    const std::string path = std::string(folder) + "/a.pcapng";
    ravo::platform::pcapng_set_folders({folder});
    streaming_shell s, viewer(14);
    EXPECT_EQ(session_run(*viewer.session, "monitor ip dhcp relay pcap " + path), 1) << "not for those who only look";
    EXPECT_EQ(session_run(*s.session, "monitor ip dhcp relay vlan 10 pcap " + path + " size 7"), 0);
    take({});
    take({.vlan = 20});
    signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit small{10, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    take({});
    setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_EQ(s.text, "% cannot write " + path + ": File too large\n1 messages in " + path + "\n");
    EXPECT_THAT(s.ended, ElementsAre(1));
    EXPECT_FALSE(session_streaming(*s.session));
    take({});
    std::filesystem::remove_all(folder);
}

TEST_F(BooksCommands, CaptureTellsHowMuchItHolds) {
    char folder[] = "/tmp/books_commands_test.XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    const std::string path = std::string(folder) + "/a.pcapng";
    ravo::platform::pcapng_set_folders({folder});
    streaming_shell s;
    EXPECT_EQ(session_run(*s.session, "monitor ip dhcp relay mac 02:00:00:00:00:01 pcap " + path), 0);
    take({});
    take({});
    take({.client = 2});
    EXPECT_EQ(s.text, "");
    EXPECT_EQ(session_interrupt(*s.session), 0);
    EXPECT_EQ(s.text, "2 messages in " + path + "\n");
    std::filesystem::remove_all(folder);
}

// ---- JSON ----

// A relay that is there; the documents here need nothing of it.
void have_relay() {
    static const relay_access access{};
    relay_access_register(&access);
}

// All outcomes are members, also those that no message had.
// All outcomes, of which one happened once; those of guards are told in the total only.
std::string outcomes(const std::string &indent, relay_outcome one, bool total) {
    std::string out = indent + "\"outcomes\": {\n";
    for (int i = 0; i < OUTCOMES; ++i)
        if (total || i < OUTCOME_CORE_ASSERTION || i > OUTCOME_GUARD_TRANSACTION)
            out += indent + "  \"" + std::string(outcome_word(static_cast<relay_outcome>(i))) +
                   "\": " + (i == one ? "1" : "0") + (i + 1 == OUTCOMES ? "\n" : ",\n");
    return out + indent + "}\n";
}

std::string one_discover(const std::string &indent) {
    std::string out = indent + "\"types\": {\n" + indent + "  \"discover\": 1,\n";
    for (const char *type : {"offer", "request", "decline", "ack", "nak", "release"})
        out += indent + "  \"" + type + "\": 0,\n";
    return out + indent + "  \"inform\": 0\n" + indent + "}\n";
}

constexpr char no_transactions[] =
    "  \"transactions\": {\n    \"open\": 0,\n    \"used_bytes\": 0,\n    \"budget_bytes\": 0,\n"
    "    \"ended_early\": 0,\n    \"refused\": 0,\n    \"ports\": []\n  }\n";

TEST_F(BooksCommands, StatisticsAsJson) {
    have_relay();
    take({.servers = {"192.0.2.11", "192.0.2.12"}});
    const std::string counted = "\"received\": 1,\nI\"sent\": 2,\nI\"rebroadcast\": 0,\n";
    const auto block = [&](const std::string &indent, std::string head, bool total = false) {
        std::string text = counted;
        for (std::size_t at; (at = text.find('I')) != std::string::npos;) text.replace(at, 1, indent);
        std::string words = outcomes(indent, OUTCOME_RELAYED, total);
        words.insert(words.size() - 1, ",");
        return head + indent + text + words + one_discover(indent);
    };
    // Lost messages are known in total alone.
    const auto with_lost = [](std::string text) { return text.insert(text.size() - 1, ",\n    \"lost\": 0"); };
    shell s(2);
    EXPECT_EQ(s.print("show ip dhcp relay statistics vlan 10 | json"), block("  ", "{\n  \"vlan\": 10,\n") + "}\n");
    EXPECT_EQ(s.print("show ip dhcp relay statistics port 1/1 | json"),
              block("  ", "{\n  \"port\": \"1/1\",\n  \"ifindex\": 5121,\n") + "}\n");
    EXPECT_EQ(s.print("show ip dhcp relay statistics | json"),
              "{\n  \"total\": {\n" + with_lost(block("    ", "", /*total=*/true)) + "  },\n  \"vlans\": [\n    {\n" +
                  block("      ", "      \"vlan\": 10,\n") + "    }\n  ],\n  \"ports\": [\n    {\n" +
                  block("      ", "      \"port\": \"1/1\",\n      \"ifindex\": 5121,\n") +
                  "    }\n  ],\n  \"unsent\": [],\n" + no_transactions + "}\n");
    EXPECT_EQ(s.run("show ip dhcp relay statistics port 1 | json"), 1);
    EXPECT_EQ(s.text, "% \"1\" is no port; give module and port, such as 1/2\n");
}

// The time of a document, the one thing in it that no test can know, in a form of its own.
std::string with_fixed_time(std::string text) {
    const std::string name = "\"time\": \"";
    for (std::size_t at = text.find(name); at != std::string::npos; at = text.find(name, at + 1)) {
        constexpr std::size_t size = sizeof "2024-06-07T08:09:10.123456Z" - 1;
        EXPECT_THAT(text.substr(at + name.size(), size), MatchesRegex("[-0-9]{10}T[:0-9]{8}\\.[0-9]{6}Z"));
        text.replace(at + name.size(), size, "T");
    }
    const std::string waits = "\"unanswered_us\": ";
    for (std::size_t at = text.find(waits); at != std::string::npos; at = text.find(waits, at + 1)) {
        const std::size_t digits = text.find_first_not_of("0123456789", at + waits.size()) - at - waits.size();
        EXPECT_GT(digits, 0u);
        text.replace(at + waits.size(), digits, "T");
    }
    return text;
}

TEST_F(BooksCommands, ClientsAsJson) {
    have_relay();
    take({.client = 1, .outcome = OUTCOME_HOP_LIMIT});
    shell s(2);
    EXPECT_EQ(with_fixed_time(s.print("show ip dhcp relay client | json")), R"({
  "clients": [
    {
      "client": "02:00:00:00:00:01",
      "vlan": 10,
      "port": "1/1",
      "state": "asking",
      "state_text": "asking",
      "unanswered_us": T,
      "messages": 1,
      "time": "T",
      "op": "request",
      "type": "DISCOVER",
      "outcome": "hop-limit",
      "reason": "passed too many relays"
    }
  ],
  "total": 1
}
)");
}

TEST_F(BooksCommands, ClientAsJson) {
    have_relay();
    take({.vlan = 0,
          .port = 0,
          .servers = {"192.0.2.11"},
          .option82 = {1, 6, 0, 4, 10, 0, 1, 3, 2, 8, 0, 6, 2, 0, 0, 0, 10, 1}});
    std::uint64_t number = 0;
    books_each_recorded([&](const book_entry &entry) { number = entry.number; });
    shell s(2);
    EXPECT_EQ(with_fixed_time(s.print("show ip dhcp relay client 02:00:00:00:00:01 | json")), R"({
  "client": "02:00:00:00:00:01",
  "state": "asking",
  "state_text": "asking",
  "unanswered_us": T,
  "messages": [
    {
      "number": )" + std::to_string(number) + R"(,
      "time": "T",
      "op": "request",
      "type": "DISCOVER",
      "outcome": "relayed",
      "reason": "relayed to servers",
      "xid": "2A000000",
      "xid_bytes": "0000002a",
      "servers": [
        "192.0.2.11"
      ],
      "servers_count": 1,
      "rebroadcast": false,
      "option82": {
        "bytes": "010600040a00010302080006020000000a01",
        "length": 18,
        "circuit_id": "00040a000103",
        "remote_id": "0006020000000a01",
        "vlan": 10,
        "module": 1,
        "port": 3,
        "mac": "02:00:00:00:0a:01"
      }
    }
  ],
  "total": 1
}
)");
    EXPECT_EQ(s.run("show ip dhcp relay client x | json"), 1);
}

}  // namespace
