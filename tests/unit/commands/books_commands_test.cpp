// SPDX-License-Identifier: Apache-2.0
// The commands on the counters of messages: what they print, whole, and what they refuse.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "books_box.h"
#include "commands/books_text.h"

namespace {

using namespace ravo::cli;
using namespace ravo::platform;
using namespace books_box;
using cli_box::shell;
using testing::ElementsAre;

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
        "  sent                              2  copies sent to servers and clients\n"
        "  What they were:\n"
        "  DISCOVER                          2\n"
        "  What became of them:\n"
        "  relayed                           1  relayed to servers\n"
        "  hop-limit                         1  passed too many relays\n";
    const std::string port_block =
        "  received                          1  messages that came in\n"
        "  sent                              0  copies sent to servers and clients\n"
        "  What became of them:\n"
        "  unknown-vlan                      1  no VLAN interface for its VLAN\n";
    shell s;
    EXPECT_EQ(s.print("show ip dhcp relay statistics"),
              "Total:\n"
              "  received                          3  messages that came in\n"
              "  sent                              2  copies sent to servers and clients\n"
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
              "  sent                              1  copies sent to servers and clients\n"
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

}  // namespace
