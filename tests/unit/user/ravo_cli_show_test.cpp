// SPDX-License-Identifier: Apache-2.0
// The show and clear commands, in every view.
#include "ravo_if_socket.h"
#include "show_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using fake::target;

using RavoCliShow = ShowTest;

constexpr const char *rule = "============================================================\n";

// ---- Summary ----

std::vector<view_line> summary_head(const char *relay, int hops, int relay_value, const char *option, int option_value,
                                    const char *policy, int policy_value, const char *check, int check_value,
                                    const char *trusted, int trusted_value) {
    std::vector<view_line> lines = {
        {1, "\n"},
        {3, std::string("DHCP Relay                            :") + relay + " \n"},
        {7, "DHCP Relay Hop Count                  :" + std::to_string(hops) + " \n", 2},
        {4, std::to_string(relay_value), 1},
        {3, std::string("DHCP Relay Information Option         :") + option + " \n"},
        {4, std::to_string(option_value), 4},
        {3, std::string("DHCP Relay Information Policy         :") + policy + "\n"},
    };
    if (policy_value != 0) lines.push_back({4, std::to_string(policy_value), 5});
    lines.push_back({3, std::string("DHCP Relay Information Check Reply    :") + check + " \n"});
    lines.push_back({4, std::to_string(check_value), 3});
    lines.push_back({3, std::string("DHCP Relay Information Trusted        :") + trusted + " \n"});
    lines.push_back({4, std::to_string(trusted_value), 6});
    return lines;
}

std::vector<view_line> default_head() {
    return summary_head("disabled", 4, 2, "disabled", 2, "replace", 1, "enabled", 1, "disabled", 2);
}

std::vector<view_line> operator+(std::vector<view_line> lines, const std::vector<view_line> &more) {
    lines.insert(lines.end(), more.begin(), more.end());
    return lines;
}

TEST_F(RavoCliShow, SummaryOfTheDefaults) {
    expect_lines(ravo_cmd_show_relay, default_head() + std::vector<view_line>{{1, "\n"}, {1, "\n\n"}});
}

TEST_F(RavoCliShow, SummaryOfEverySetting) {
    ravo_agent agent = settings_now();
    agent.relay_enable = 1;
    agent.hops = 16;
    agent.option_state = 1;
    agent.check = 0;
    trust_all = 1;
    const struct {
        std::uint32_t policy;
        const char *name;
        int value;
    } policies[] = {{0, "", 0}, {1, "replace", 1}, {2, "drop", 2}, {3, "keep", 3}};
    for (const auto &policy : policies) {
        agent.policy = policy.policy;
        ravo_db_agent_set(&agent);
        expect_lines(ravo_cmd_show_relay, summary_head("enabled", 16, 1, "enabled", 1, policy.name, policy.value,
                                                       "disabled", 2, "enabled", 1) +
                                              std::vector<view_line>{{1, "\n"}, {1, "\n\n"}});
    }
}

TEST_F(RavoCliShow, AnUnknownPolicyHasNoValueLine) {
    set_setting(&ravo_agent::policy, 4);
    for (const std::uint32_t flags : {0u, 4u}) {
        fake::session session = fake::session::with_view(flags);
        EXPECT_EQ(session.run(ravo_cmd_show_relay), 0);
        for (const fake::output &entry : session.outputs) EXPECT_NE(entry.key, column_key(5));
    }
}

TEST_F(RavoCliShow, SummaryOfInterfacesServersAndTrust) {
    iface first = vlan_record(9, {"10.0.0.1", "10.0.0.2"});
    first.trusted = 1;
    store(first);
    iface uncounted = vlan_record(10, {"10.0.0.3"});
    uncounted.server_count = 0;  // no block; its server is counted in the total
    store(uncounted);
    store(vlan_record(11));
    store(vlan_record(13, {"10.0.0.8"}));
    iface last = vlan_record(12, {"10.0.0.4", "10.0.0.5", "10.0.0.6", "10.0.0.7"});
    last.trusted = 1;
    store(last);
    expect_lines(ravo_cmd_show_relay,
                 default_head() + std::vector<view_line>{
                                      {1, "\n"},
                                      {3, "vlan9 Relay IP Address\n"},
                                      {3, " 10.0.0.1 "},
                                      {3, " 10.0.0.2 "},
                                      {3, " 0.0.0.0 "},
                                      {3, " 0.0.0.0 "},
                                      {1, "\n"},
                                      {1, "\n"},
                                      {3, "vlan12 Relay IP Address\n"},
                                      {3, " 10.0.0.4 "},
                                      {3, " 10.0.0.5 "},
                                      {3, " 10.0.0.6 "},
                                      {3, " 10.0.0.7 "},
                                      {1, "\n"},
                                      {1, "\n"},
                                      {3, "vlan13 Relay IP Address\n"},
                                      {3, " 10.0.0.8 "},
                                      {3, " 0.0.0.0 "},
                                      {3, " 0.0.0.0 "},
                                      {3, " 0.0.0.0 "},
                                      {1, "\n"},
                                      {4, "8", 7},
                                      {1, "\n"},
                                      {1, "\nList of Trusted sources of relay agent information option:"},
                                      {1, "\n"},
                                      {1, "vlan9               "},
                                      {1, "vlan12              "},
                                      {1, "\n\n"},
                                  });
}

TEST_F(RavoCliShow, SummaryWithARecordButNoServerShowsTheTotal) {
    store(vlan_record(10));
    expect_lines(ravo_cmd_show_relay, default_head() + std::vector<view_line>{{4, "0", 7}, {1, "\n"}, {1, "\n\n"}});
}

TEST_F(RavoCliShow, ValuesAreTwoForAnythingButOne) {
    set_setting(&ravo_agent::relay_enable, 0);
    set_setting(&ravo_agent::option_state, 1);
    fake::session session = fake::session::with_view(4);
    EXPECT_EQ(session.run(ravo_cmd_show_relay), 0);
    EXPECT_THAT(
        session.outputs,
        ElementsAre(fake::output{target::buffer, column_key(2), "DHCP Relay Hop Count                  :4 \n"},
                    fake::output{target::buffer, column_key(1), "2"}, fake::output{target::buffer, column_key(4), "1"},
                    fake::output{target::buffer, column_key(5), "1"}, fake::output{target::buffer, column_key(3), "1"},
                    fake::output{target::buffer, column_key(6), "2"}));
}

TEST_F(RavoCliShow, AKeyIsEightBytesOfTwoWords) {
    EXPECT_EQ(column_key(7).size(), 8u);
    fake::session session = fake::session::with_view(4);
    store(vlan_record(10, {"10.0.0.1"}));
    session.run(ravo_cmd_show_relay);
    EXPECT_EQ(session.outputs.back(), (fake::output{target::buffer, column_key(7), "1"}));
}

TEST_F(RavoCliShow, AFullBufferEndsTheSummary) {
    store(vlan_record(10, {"10.0.0.1"}));
    fake::session whole = fake::session::with_view(4);
    ASSERT_EQ(whole.run(ravo_cmd_show_relay), 0);
    ASSERT_EQ(whole.outputs.size(), 7u);
    for (int room = 0; room <= 7; ++room) {
        fake::session session = fake::session::with_view(4);
        session.keyed_room = room;
        EXPECT_EQ(session.run(ravo_cmd_show_relay), room < 7 ? 4 : 0) << room;
        const std::vector<fake::output> expected(whole.outputs.begin(), whole.outputs.begin() + room);
        EXPECT_EQ(session.outputs, expected) << room;
    }
}

TEST_F(RavoCliShow, WithoutAViewPrinterTheViewAwareLinesAreNotPrinted) {
    store_trusted(10);
    for (const cli_handler handler : {ravo_cmd_show_relay, ravo_cmd_show_trusted_sources}) {
        fake::session session;
        EXPECT_EQ(session.run(handler), 0);
        EXPECT_THAT(session.outputs, IsEmpty());
    }
}

// ---- Detail ----

std::vector<view_line> detail_head(const char *relay, int hops, const char *option, const char *policy,
                                   const char *check, const char *trusted) {
    return {
        {1, "\n"},
        {3, std::string("DHCP relay                            :") + relay + " \n"},
        {7, "Relay Hop Count                       :" + std::to_string(hops) + " \n"},
        {3, std::string("DHCP Relay Information Option         :") + option + " \n"},
        {3, std::string("DHCP Relay Information Policy         :") + policy + "\n"},
        {3, std::string("DHCP Relay Information Check Reply    :") + check + " \n"},
        {3, std::string("DHCP Relay Information Trusted        :") + trusted + " \n"},
    };
}

TEST_F(RavoCliShow, DetailOfTheDefaultsEndsAfterTheCounters) {
    expect_lines(ravo_cmd_show_detail, detail_head("disabled", 4, "disabled", "replace", "enabled", "disabled") +
                                           std::vector<view_line>{
                                               {1, "Server_sock:-1\n"},
                                               {1, "Raw_sock:-1\n"},
                                               {1, "listen_sock_fd:-1\n"},
                                               {1, "DHCP packet DISCOVER Rx:0\n"},
                                               {1, "DHCP packet OFFER Rx:0\n"},
                                               {1, "DHCP packet REQUEST Rx:0\n"},
                                               {1, "DHCP packet ACK Rx:0\n"},
                                               {1, "DHCP packet DECLINE Rx:0\n"},
                                               {1, "DHCP packet NAK Rx:0\n"},
                                               {1, "DHCP packet INFORMRx:0\n"},
                                               {1, "DHCP packet RELEASE Rx:0\n"},
                                           });
}

TEST_F(RavoCliShow, DetailOfEverySettingSocketAndCounter) {
    ravo_agent agent = settings_now();
    agent.relay_enable = 1;
    agent.hops = 7;
    agent.option_state = 1;
    agent.check = 0;
    agent.policy = 3;
    ravo_db_agent_set(&agent);
    trust_all = 1;
    EXPECT_EQ(RAVO_IF_Create_fd(), 0U);
    ravo_rx_counters = {1, 2, 3, 4, 5, 6, 7, 8};
    expect_lines(ravo_cmd_show_detail, detail_head("enabled", 7, "enabled", "keep", "disabled", "enabled") +
                                           std::vector<view_line>{
                                               {1, "Server_sock:102\n"},
                                               {1, "Raw_sock:101\n"},
                                               {1, "listen_sock_fd:-1\n"},
                                               {1, "DHCP packet DISCOVER Rx:1\n"},
                                               {1, "DHCP packet OFFER Rx:2\n"},
                                               {1, "DHCP packet REQUEST Rx:3\n"},
                                               {1, "DHCP packet ACK Rx:4\n"},
                                               {1, "DHCP packet DECLINE Rx:5\n"},
                                               {1, "DHCP packet NAK Rx:6\n"},
                                               {1, "DHCP packet INFORMRx:7\n"},
                                               {1, "DHCP packet RELEASE Rx:8\n"},
                                           });
}

// The block of vlan10 with an address, and that of vlan20 with neither address nor server.
std::string detail_blocks() {
    return std::string("\n\n") + rule +
           "vlan10 Relay IP Address\n"
           "(10.0.0.1) (10.0.0.2) (0.0.0.0) (0.0.0.0) \n"
           "interface index:1034\n"
           "if_ip:192.0.2.1\n"
           "if_mac:00.11.22.33.44.fe.06.07.08.09.0a.0b\n" +
           rule + "\n\n" + rule +
           "vlan20 Relay IP Address\n"
           "(0.0.0.0) (0.0.0.0) (0.0.0.0) (0.0.0.0) \n"
           "interface index:4294967295\n"
           "if_ip:0.0.0.0\n"
           "if_mac:00.00.00.00.00.00.00.00.00.00.00.00\n" +
           rule;
}

class RavoCliShowDetail : public RavoCliShow {
  protected:
    void SetUp() override {
        RavoCliShow::SetUp();
        iface first = vlan_record(10, {"10.0.0.1", "10.0.0.2"});
        first.if_ip = fake::address("192.0.2.1");
        const std::uint8_t mac[16] = {0x00, 0x11, 0x22, 0x33, 0x44, 0xfe, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
        std::memcpy(first.if_mac, mac, sizeof mac);
        store(first);
        iface second = vlan_record(20);
        second.ifindex = 4294967295u;
        store(second);
    }
};

TEST_F(RavoCliShowDetail, EveryInterfaceHasItsBlockUnderThePlainRule) {
    for (std::uint32_t flags = 0; flags < 8; ++flags)
        for (const std::uint32_t show_all : {0u, 1u, 2u}) {
            fake::session session = fake::session::with_view(flags);
            session.context.show_all = show_all;
            EXPECT_EQ(session.run(ravo_cmd_show_detail), 0);
            EXPECT_EQ(session.text(target::plain), (flags & 2) == 0 || show_all == 1 ? detail_blocks() : "")
                << flags << " " << show_all;
        }
}

TEST_F(RavoCliShowDetail, BlocksFollowTheCounters) {
    fake::session session = fake::session::with_view(0);
    EXPECT_EQ(session.run(ravo_cmd_show_detail), 0);
    const std::string text = session.text();
    ASSERT_GT(text.size(), detail_blocks().size());
    EXPECT_EQ(text.substr(text.size() - detail_blocks().size()), detail_blocks());
}

TEST_F(RavoCliShowDetail, AFullBufferEndsTheDetailBeforeItsBlocks) {
    fake::session session = fake::session::with_view(4);
    session.keyed_room = 0;
    EXPECT_EQ(session.run(ravo_cmd_show_detail), 4);
    EXPECT_THAT(session.outputs, IsEmpty());

    session = fake::session::with_view(4);
    session.keyed_room = 1;
    EXPECT_EQ(session.run(ravo_cmd_show_detail), 0);
    EXPECT_THAT(joined(session.outputs),
                ElementsAre(fake::output{target::buffer, {}, "Relay Hop Count                       :4 \n"},
                            fake::output{target::plain, {}, detail_blocks()}));
}

TEST_F(RavoCliShowDetail, WithoutAViewPrinterOnlyTheBlocksArePrinted) {
    EXPECT_EQ(plain(ravo_cmd_show_detail), detail_blocks());
}

TEST_F(RavoCliShow, ABlockWithoutARecordIsEmpty) {
    for (std::uint32_t flags = 0; flags < 8; ++flags)
        for (const std::uint32_t show_all : {0u, 1u}) {
            fake::session session = fake::session::with_view(flags);
            session.context.show_all = show_all;
            ravo_show_detail_block(&session.context, nullptr);
            EXPECT_EQ(session.text(target::plain), (flags & 2) == 0 || show_all == 1 ? "\n\nempty" : "");
        }
}

// ---- Trusted sources ----

TEST_F(RavoCliShow, WithoutTrustedInterfacesThereIsOnlyTheCount) {
    store(vlan_record(10));
    expect_lines(ravo_cmd_show_trusted_sources, {{4, "0\n", 9}});
}

TEST_F(RavoCliShow, FiveTrustedInterfacesPrintAsFourAndOne) {
    for (const int vlan : {1, 20, 300, 4000, 4094}) store_trusted(vlan);
    iface other = vlan_record(5);
    other.trusted = 2;  // trusted is exactly 1
    store(other);
    expect_lines(ravo_cmd_show_trusted_sources,
                 {
                     {1, "\nList of trusted sources of relay agent information option:"},
                     {1, "\n"},
                     {1, "vlan1               vlan20              vlan300             vlan4000            "},
                     {1, "\n"},
                     {1, "vlan4094            "},
                     {1, "\nTotal Entries: 5\n"},
                     {4, "5\n", 9},
                 });
}

TEST_F(RavoCliShow, FourTrustedInterfacesPrintAsOneLine) {
    for (const int vlan : {1, 2, 3, 4}) store_trusted(vlan);
    expect_lines(ravo_cmd_show_trusted_sources,
                 {
                     {1, "\nList of trusted sources of relay agent information option:\n"},
                     {1, "vlan1               vlan2               vlan3               vlan4               "},
                     {1, "\nTotal Entries: 4\n"},
                     {4, "4\n", 9},
                 });
}

TEST_F(RavoCliShow, AFullBufferEndsTheTrustedSources) {
    store_trusted(10);
    fake::session session = fake::session::with_view(4);
    session.keyed_room = 0;
    EXPECT_EQ(session.run(ravo_cmd_show_trusted_sources), 4);
    EXPECT_THAT(session.outputs, IsEmpty());
}

// ---- Clear ----

TEST_F(RavoCliShow, ClearSetsEveryCounterToZeroAndPrintsNothing) {
    ravo_rx_counters = {1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_EQ(plain(ravo_cmd_clear_counter), "");
    const ravo_rx_counter_table zero{};
    EXPECT_EQ(std::memcmp(&ravo_rx_counters, &zero, sizeof zero), 0);
}

}  // namespace
