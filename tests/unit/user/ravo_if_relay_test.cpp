// The relay's decisions about one message, one row of the decision table after the other.
#include "ravo_if_relay.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "packet_relay.h"

namespace {

using packet::agent_info;
using packet::bytes;
using packet::frame_of;
using packet::held_message;
using packet::hex;
using packet::join;
using packet::message;
using packet::opt;
using packet::option82;
using packet::text;
using packet::type;

using trace_lines = std::vector<fake::line>;
using strings = std::vector<std::string>;
using words = std::vector<std::uint32_t>;

constexpr pkt_origin origin = {100, packet::port_2_1};
const words no_transaction = {};

class Relay : public packet::relay_test {};

// Hands a message to the decisions, on an interface that need not be stored.
void decide(const message &msg, const packet::interface_of &via = {}, pkt_origin from = origin) {
    held_message held(encode(msg));
    const iface relay = packet::record(via);
    fake::forget();
    ravo_if_handle_pkt(&relay, held.data(), held.length, from);
}

message request(const std::vector<bytes> &options = {type(packet::discover), packet::end()}) {
    message msg;
    msg.options = options;
    return msg;
}

// The message as it leaves: hops raised, relay address set, with these options.
message relayed(message msg, const std::vector<bytes> &options, const std::string &giaddr = "192.0.2.1") {
    ++msg.hops;
    msg.giaddr = giaddr;
    msg.options = options;
    return msg;
}

frame_of to_client(const message &msg) {
    return {.to_ip = msg.yiaddr, .payload = encode(msg)};
}

const std::string server = "198.51.100.1:67";

// ---- Every line of a request and of a reply ----

TEST_F(Relay, TracesOfAWholeRequest) {
    packet::set({.option_state = 1});
    const message msg = request();
    decide(msg);
    const bytes behind = join({packet::part_of(option82(), 2, 18), {0}});
    const trace_lines expected =
        packet::lines({{{101, "ravo_if_handle_pkt (#): Rx interface=vlan100\n"},
                        {101, "ravo_if_handle_pkt (#):header verified passed\n"},
                        {101, "ravo_if_handle_pkt (#):agent_db.option_state 1\n"},
                        {101, "header->giaddr == 0, my if_ip 10200c0 \n"},
                        {101, "ravo_if_handle_pkt (#): Update Xid DB with xid=D4C3B2A1,modid=2,port num=1\n"}},
                       packet::dump_lines(behind),
                       {{101, "ravo_if_handle_pkt (#): header->op=1\n"},
                        {101, "ravo_if_send_server_Unicast (#): interface=vlan100, number of configured server=1\n"},
                        {101, "ravo_if_send_server_Unicast (#): server_db[1].s_addr==0\n"},
                        {101, "ravo_if_send_server_Unicast (#): server_db[2].s_addr==0\n"},
                        {101, "ravo_if_send_server_Unicast (#): server_db[3].s_addr==0\n"}}});
    EXPECT_EQ(fake::traces(), expected);
    expect_only_datagram(server, encode(relayed(msg, {type(packet::discover), option82(), packet::end()})));
    expect_outcomes({OUTCOME_RELAYED});
}

TEST_F(Relay, TracesOfAWholeReply) {
    packet::set({.option_state = 1});
    const message msg = packet::reply_message({type(packet::offer), option82(), packet::end()});
    packet::remember(msg);
    decide(msg);
    const message out = relayed(msg, {type(packet::offer), packet::end()});
    const std::string size = std::to_string(42 + encode(out).size());
    const trace_lines expected = {{101, "ravo_if_handle_pkt (#): Rx interface=vlan100\n"},
                                  {101, "ravo_if_handle_pkt (#):header verified passed\n"},
                                  {101, "ravo_find_agent_option (#): found rcv pkt with 82opt [0] 1 [1] 6  \n"},
                                  {101, "ravo_if_handle_pkt (#):agent_db.option_state 1\n"},
                                  {101, "header->giaddr == 10200c0, my if_ip 10200c0 \n"},
                                  {101, "ravo_option_check_reply (#): rx_if=vlan100\n"},
                                  {101, "ravo_option_check_reply (#): op82_data is valide\n"},
                                  {101, "ravo_if_handle_pkt (#): header->op=2\n"},
                                  {101, "ravo_if_send_to_client (#)\n"},
                                  {101, "sendEtherFrame (#): interface=vlan100, face->if_maclen=6, sizeof 6\n"},
                                  {101, "===========msg ====================\n"},
                                  {101, "sendEtherFrame (#): raw_sock_fd=101, res " + size},
                                  {101, "interface=vlan100\n"},
                                  {101, "iface->if_ip 192.0.2.1\n"},
                                  {101, "iface->if_mac 00.00.5e.00.53.01, iface->if_maclen=6\n"}};
    EXPECT_EQ(fake::traces(), expected);
    expect_only_frame(to_client(out));
    EXPECT_EQ(packet::transaction(msg), no_transaction);
    expect_outcomes({OUTCOME_DELIVERED});
}

// ---- Header and hops ----

TEST_F(Relay, InvalidHeaderStops) {
    message msg = request();
    msg.flags = 0x0001;
    decide(msg);
    expect_silence();
    EXPECT_EQ(fake::traces(), (trace_lines{{101, "ravo_if_handle_pkt (#): Rx interface=vlan100\n"},
                                           {101, "isValidHeader (#): reason=Invalid flags field\n"}}));
    expect_outcomes({OUTCOME_BAD_FLAGS});
}

TEST_F(Relay, HopsAtTheLimitLeaveRaisedByOne) {
    for (const std::uint32_t limit : words{1, 4, 16}) {
        packet::set({.hops = limit});
        message msg = request();
        msg.hops = static_cast<std::uint8_t>(limit);
        decide(msg);
        expect_only_datagram(server, encode(relayed(msg, msg.options)));
        msg.hops = static_cast<std::uint8_t>(limit + 1);
        decide(msg);
        expect_silence();
        expect_outcomes({OUTCOME_HOP_LIMIT});
    }
}

TEST_F(Relay, HopsAreRaisedEvenInADroppedMessage) {
    message msg = request({type(1), option82(), packet::end()});
    held_message held(encode(msg));
    const iface relay = packet::record();
    ravo_if_handle_pkt(&relay, held.data(), held.length, origin);
    expect_silence();
    EXPECT_EQ(held.data()[3], 1);
}

// ---- Trust ----

TEST_F(Relay, UntrustedClientWithOption82IsDroppedSilently) {
    for (const std::uint32_t option_state : words{0, 1}) {
        packet::set({.option_state = option_state});
        const message msg = request({type(1), option82(), packet::end()});
        decide(msg, {.trusted = 0});
        expect_silence();
        EXPECT_EQ(fake::traces(),
                  (trace_lines{{101, "ravo_if_handle_pkt (#): Rx interface=vlan100\n"},
                               {101, "ravo_if_handle_pkt (#):header verified passed\n"},
                               {101, "ravo_find_agent_option (#): found rcv pkt with 82opt [0] 1 [1] 6  \n"}}));
        EXPECT_EQ(packet::transaction(msg), no_transaction);
        expect_outcomes({OUTCOME_UNTRUSTED_OPTION82});
    }
}

TEST_F(Relay, UntrustedOption82ThatBeginsOtherwiseIsDroppedToo) {
    decide(request({type(1), opt(82, hex("02 02 aa bb")), packet::end()}));
    expect_silence();
    expect_outcomes({OUTCOME_UNTRUSTED_OPTION82});
}

TEST_F(Relay, UntrustedReplyWithOption82AndNoRelayAddressIsDropped) {
    message msg = packet::reply_message({type(2), option82(), packet::end()});
    msg.giaddr = "0.0.0.0";
    decide(msg);
    expect_silence();
    expect_outcomes({OUTCOME_UNTRUSTED_OPTION82});
}

TEST_F(Relay, UntrustedClientWithoutOption82IsRelayed) {
    const message msg = request();
    decide(msg, {.trusted = 0});
    expect_only_datagram(server, encode(relayed(msg, msg.options)));
}

TEST_F(Relay, TrustedClientKeepsItsOption82) {
    packet::set({.option_state = 1});
    const message msg = request({type(1), option82({.vlan = 7, .module = 9}), packet::end()});
    decide(msg, {.trusted = 1});
    expect_only_datagram(server, encode(relayed(msg, msg.options)));
    expect_outcomes({OUTCOME_RELAYED});
}

TEST_F(Relay, UntrustedMessageOfAnotherRelayIsNotDropped) {
    message msg = request({type(1), option82(), packet::end()});
    msg.giaddr = "203.0.113.1";
    decide(msg, {.trusted = 0});
    expect_only_datagram(server, encode(relayed(msg, msg.options, "203.0.113.1")));
}

// ---- Information option off ----

TEST_F(Relay, OptionOffSetsTheRelayAddressAndNothingElse) {
    packet::set({.option_state = 0});
    const message msg = request({type(1), opt(12, text("pc")), packet::end(), packet::pad(9)});
    decide(msg);
    expect_only_datagram(server, encode(relayed(msg, msg.options)));
    EXPECT_EQ(packet::transaction(msg), no_transaction);
}

TEST_F(Relay, OptionOffKeepsARelayAddressThatIsSet) {
    packet::set({.option_state = 0});
    message msg = request({type(1), option82(), packet::end()});
    msg.giaddr = "203.0.113.1";
    decide(msg);
    expect_only_datagram(server, encode(relayed(msg, msg.options, "203.0.113.1")));
}

TEST_F(Relay, OptionOffKeepsOption82OfATrustedClient) {
    packet::set({.option_state = 0});
    const message msg = request({type(1), option82({.vlan = 7}), packet::end()});
    decide(msg, {.trusted = 1});
    expect_only_datagram(server, encode(relayed(msg, msg.options)));
}

TEST_F(Relay, OptionOffDeliversAReplyUncheckedAndUnchanged) {
    packet::set({.option_state = 0});
    for (const std::vector<bytes> &options :
         {std::vector<bytes>{type(2), option82({.vlan = 9}), packet::end()}, {type(2), packet::end()}}) {
        const message msg = packet::reply_message(options);
        decide(msg);
        expect_only_frame(to_client(relayed(msg, options)));
    }
}

TEST_F(Relay, OptionOffGivesAReplyWithoutRelayAddressItsOwn) {
    packet::set({.option_state = 0});
    message msg = packet::reply_message({type(2), packet::end()});
    msg.giaddr = "0.0.0.0";
    decide(msg);
    expect_only_frame(to_client(relayed(msg, msg.options)));
}

TEST_F(Relay, OptionOffKeepsTheRelayAddressOfAReply) {
    packet::set({.option_state = 0});
    message msg = packet::reply_message({type(2), packet::end()});
    msg.giaddr = "203.0.113.1";
    decide(msg);
    expect_only_frame(to_client(relayed(msg, msg.options, "203.0.113.1")));
}

// ---- Information option on, the relay's own messages ----

TEST_F(Relay, OwnRequestGetsOption82AndItsTransactionIsRemembered) {
    packet::set({.option_state = 1});
    for (const std::string &giaddr : strings{"0.0.0.0", "192.0.2.1"}) {
        message msg = request({type(1), opt(12, text("pc")), packet::end()});
        msg.giaddr = giaddr;
        decide(msg);
        expect_only_datagram(server, encode(relayed(msg, {type(1), opt(12, text("pc")), option82(), packet::end()})));
        EXPECT_EQ(packet::transaction(msg), (words{2, 1}));
    }
}

TEST_F(Relay, WhatStandsBehindTheEndOptionIsCutOffByOption82) {
    packet::set({.option_state = 1});
    const message msg = request({type(1), packet::end(), packet::pad(60)});
    decide(msg);
    expect_only_datagram(server, encode(relayed(msg, {type(1), option82(), packet::end()})));
}

TEST_F(Relay, RequestWithoutRoomIsSentWithoutOption82) {
    packet::set({.option_state = 1});
    const message msg = request({type(1), opt(12, bytes(255, 'a')), opt(12, bytes(46, 'b')), packet::end()});
    ASSERT_EQ(encode(msg).size(), 240U + 309);
    decide(msg);
    expect_only_datagram(server, encode(relayed(msg, msg.options)));
    EXPECT_THAT(fake::traces(), testing::Contains(fake::line{101, "addAgentOption (#): return opt82 len 309\n"}));
}

TEST_F(Relay, LargestRequestWithRoomGetsOption82) {
    packet::set({.option_state = 1});
    const std::vector<bytes> options = {type(1), opt(12, bytes(255, 'a')), opt(12, bytes(44, 'b'))};
    message msg = request(options);
    msg.options.push_back(packet::end());
    ASSERT_EQ(encode(msg).size(), 240U + 307);
    decide(msg);
    std::vector<bytes> out = options;
    out.push_back(option82());
    out.push_back(packet::end());
    expect_only_datagram(server, encode(relayed(msg, out)));
}

TEST_F(Relay, NoTransactionWhenRepliesAreNotChecked) {
    for (const std::uint32_t check : words{0, 2}) {
        packet::set({.option_state = 1, .check = check});
        const message msg = request();
        decide(msg);
        expect_only_datagram(server, encode(relayed(msg, {type(1), option82(), packet::end()})));
        EXPECT_EQ(packet::transaction(msg), no_transaction);
    }
}

// deliberate: any state but 0 counts as on, but transactions are remembered for state 1 alone.
TEST_F(Relay, OptionState2AddsOption82WithoutATransaction) {
    packet::set({.option_state = 2});
    const message msg = request();
    decide(msg);
    expect_only_datagram(server, encode(relayed(msg, {type(1), option82(), packet::end()})));
    EXPECT_EQ(packet::transaction(msg), no_transaction);
}

TEST_F(Relay, EachTypeAndItsTransaction) {
    packet::set({.option_state = 1});
    for (std::uint8_t value = 0; value < 10; ++value) {
        message msg = request({type(value), packet::end()});
        msg.xid = 0x100U + value;
        decide(msg);
        expect_only_datagram(server, encode(relayed(msg, {type(value), option82(), packet::end()})));
        const bool unanswered = value == packet::decline || value == packet::release;
        EXPECT_EQ(packet::transaction(msg), unanswered ? no_transaction : (words{2, 1})) << int{value};
    }
}

TEST_F(Relay, TypeBehindOption82IsNotSeenSoTheTransactionIsRemembered) {
    packet::set({.option_state = 1});
    for (const std::uint8_t value : bytes{packet::decline, packet::release}) {
        message msg = request({option82(), type(value), packet::end()});
        msg.xid = 0x200U + value;
        decide(msg, {.trusted = 1});
        expect_only_datagram(server, encode(relayed(msg, msg.options)));
        EXPECT_EQ(packet::transaction(msg), (words{2, 1}));
    }
}

TEST_F(Relay, ModuleAndPortOfTheTransaction) {
    packet::set({.option_state = 1});
    const std::vector<std::pair<std::uint32_t, words>> rows = {
        {0, {0, 0}},    {5120, {1, 0}}, {5121, {1, 1}},    {5183, {1, 63}},
        {5184, {2, 0}}, {5185, {2, 1}}, {1, {0xB2, 0xC1}}, {0x80001401, {0, 0}},
    };
    for (const auto &[port, expected] : rows) {
        const message msg = request();
        decide(msg, {}, {100, port});
        EXPECT_EQ(packet::transaction(msg), expected) << port;
    }
}

TEST_F(Relay, TransactionThatCannotBeStoredDoesNotStopTheRequest) {
    packet::set({.option_state = 1});
    fake::memory_budget = 0;
    const message msg = request();
    decide(msg);
    expect_only_datagram(server, encode(relayed(msg, {type(1), option82(), packet::end()})));
    EXPECT_EQ(packet::transaction(msg), no_transaction);
    EXPECT_THAT(fake::traces(),
                testing::Contains(fake::line{
                    104, "ravo_if_handle_pkt (#): Failed to update Xid DB with xid=D4C3B2A1,modid=2,port num=1\n"}));
    expect_outcomes({OUTCOME_RELAYED});
}

TEST_F(Relay, InvalidOptionsOfAnOwnMessageStop) {
    packet::set({.option_state = 1});
    for (const message &msg : {request({type(1)}), packet::reply_message({type(2)})}) {
        decide(msg);
        expect_silence();
        EXPECT_THAT(fake::traces(), testing::Contains(fake::line{104, "ravo_if_handle_pkt (#): Invalid options"}));
        EXPECT_EQ(packet::transaction(msg), no_transaction);
        expect_outcomes({OUTCOME_BAD_OPTIONS});
    }
}

TEST_F(Relay, MessageWithoutAnOptionAreaOnlyGetsItsRelayAddress) {
    packet::set({.option_state = 1});
    message msg = request({});
    msg.magic = {};
    ASSERT_EQ(encode(msg).size(), 236U);
    decide(msg);
    expect_only_datagram(server, encode(relayed(msg, {})));
    EXPECT_EQ(packet::transaction(msg), no_transaction);

    message reply = packet::reply_message({});
    reply.magic = {};
    decide(reply);
    expect_only_frame(to_client(relayed(reply, {})));
}

// ---- Replies and their check ----

TEST_F(Relay, CheckedReplyLosesOption82) {
    packet::set({.option_state = 1});
    for (const std::string &giaddr : strings{"192.0.2.1", "0.0.0.0"}) {
        message msg = packet::reply_message({type(5), option82(), opt(12, text("pc")), packet::end()});
        msg.giaddr = giaddr;
        packet::remember(msg);
        decide(msg, {.trusted = 1});
        expect_only_frame(to_client(relayed(msg, {type(5), opt(12, text("pc")), packet::end()})));
        EXPECT_EQ(packet::transaction(msg), no_transaction);
    }
}

TEST_F(Relay, SecondReplyOfATransactionIsDropped) {
    packet::set({.option_state = 1});
    const message msg = packet::reply_message({type(2), option82(), packet::end()});
    packet::remember(msg);
    decide(msg);
    ASSERT_EQ(fake::frames.size(), 1U);
    decide(msg);
    expect_silence();
    expect_outcomes({OUTCOME_UNKNOWN_TRANSACTION});
}

TEST_F(Relay, RefusedReplyIsDropped) {
    packet::set({.option_state = 1});
    struct row {
        std::vector<bytes> options;
        bool remembered;
        relay_outcome outcome;
    };
    const std::vector<row> rows = {
        {{type(2), packet::end()}, true, OUTCOME_NO_OPTION82},
        {{type(2), opt(82, hex("02 08 00 06 00 00 5e 00 53 01")), packet::end()}, true, OUTCOME_NO_OPTION82},
        {{type(2), option82(), packet::end()}, false, OUTCOME_UNKNOWN_TRANSACTION},
        {{type(2), option82({.vlan = 101}), packet::end()}, true, OUTCOME_CIRCUIT_ID},
        {{type(2), option82({.module = 3}), packet::end()}, true, OUTCOME_CIRCUIT_ID},
        {{type(2), option82({.port = 3}), packet::end()}, true, OUTCOME_CIRCUIT_ID},
        {{type(2), option82({.mac = hex("00 00 5e 00 53 02")}), packet::end()}, true, OUTCOME_REMOTE_ID},
    };
    for (std::size_t i = 0; i < rows.size(); ++i) {
        message msg = packet::reply_message(rows[i].options);
        msg.xid = static_cast<std::uint32_t>(0x300 + i);
        if (rows[i].remembered) packet::remember(msg);
        decide(msg);
        expect_silence();
        expect_outcomes({rows[i].outcome});
    }
}

TEST_F(Relay, UncheckedReplyLosesOption82WhateverItSays) {
    packet::set({.option_state = 1, .check = 0});
    const message msg = packet::reply_message({type(2), option82({.vlan = 9}), packet::end()});
    decide(msg);
    expect_only_frame(to_client(relayed(msg, {type(2), packet::end()})));
}

TEST_F(Relay, UncheckedReplyWithoutOption82IsDelivered) {
    packet::set({.option_state = 1, .check = 0});
    const message msg = packet::reply_message({type(2), packet::end()});
    decide(msg);
    expect_only_frame(to_client(relayed(msg, msg.options)));
}

TEST_F(Relay, OnlyTheLastOfTwoOptions82IsRemoved) {
    packet::set({.option_state = 1, .check = 0});
    const message msg =
        packet::reply_message({type(2), option82(), option82({.vlan = 7}), opt(12, text("pc")), packet::end()});
    decide(msg);
    expect_only_frame(to_client(relayed(msg, {type(2), option82(), opt(12, text("pc")), packet::end()})));
}

TEST_F(Relay, ReplyOnAnInterfaceWithoutHardwareAddressIsATracedDrop) {
    for (const std::uint32_t option_state : words{0, 1}) {
        packet::set({.option_state = option_state, .check = 0});
        decide(packet::reply_message({type(2), packet::end()}), {.mac = {}, .maclen = 0});
        expect_silence();
        EXPECT_EQ(fake::traces().back(),
                  (fake::line{104, "ravo_if_handle_pkt (#): interface vlan100 has no hardware address, drop\n"}));
        expect_outcomes({OUTCOME_NO_HARDWARE_ADDRESS});
    }
}

TEST_F(Relay, RequestOnAnInterfaceWithoutHardwareAddressIsRelayed) {
    const message msg = request();
    decide(msg, {.mac = {}, .maclen = 0});
    expect_only_datagram(server, encode(relayed(msg, msg.options)));
}

// ---- Messages of other relays ----

const std::string other_relay = "203.0.113.1";
const std::string policy_line =
    "ravo_if_handle_pkt (#):Packet is relay from another relay agent and process packet by "
    "policy\n";

message foreign(const std::vector<bytes> &options) {
    message msg = request(options);
    msg.giaddr = other_relay;
    return msg;
}

// The lines between the option state and the sending.
trace_lines decision_lines() {
    const trace_lines all = fake::traces();
    trace_lines result;
    bool inside = false;
    for (const fake::line &line : all) {
        if (line.text.find("header->op=") != std::string::npos) break;
        if (inside) result.push_back(line);
        if (line.text.find("agent_db.option_state") != std::string::npos) inside = true;
    }
    return result;
}

TEST_F(Relay, PolicyDropStops) {
    packet::set({.option_state = 1, .policy = 2});
    const message msg = foreign({type(1), option82({.vlan = 7}), packet::end()});
    decide(msg);
    expect_silence();
    EXPECT_EQ(decision_lines(),
              (trace_lines{{101, policy_line}, {101, "ravo_if_handle_pkt (#): drop  the packet by policy\n"}}));
    EXPECT_EQ(packet::transaction(msg), no_transaction);
    expect_outcomes({OUTCOME_POLICY_DROP});
}

TEST_F(Relay, PolicyKeepSendsUnchanged) {
    packet::set({.option_state = 1, .policy = 3});
    const message msg = foreign({type(1), option82({.vlan = 7}), opt(12, text("pc")), packet::end()});
    decide(msg);
    expect_only_datagram(server, encode(relayed(msg, msg.options, other_relay)));
    EXPECT_EQ(decision_lines(),
              (trace_lines{{101, policy_line}, {101, "ravo_if_handle_pkt (#): do nothing policy keep \n"}}));
    EXPECT_EQ(packet::transaction(msg), no_transaction);
    expect_outcomes({OUTCOME_RELAYED});
}

TEST_F(Relay, PolicyReplaceWritesTheRelaysOwnOption82) {
    packet::set({.option_state = 1, .policy = 1});
    const message msg = foreign({type(1), option82({.vlan = 7}), packet::end()});
    decide(msg);
    expect_only_datagram(server, encode(relayed(msg, {type(1), option82(), packet::end()}, other_relay)));
    const trace_lines lines = decision_lines();
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines[0], (fake::line{101, policy_line}));
    EXPECT_EQ(lines[1], (fake::line{101, "ravo_if_handle_pkt (#): replace the packet option by policy\n"}));
    EXPECT_EQ(packet::transaction(msg), no_transaction);
    expect_outcomes({OUTCOME_RELAYED});
}

TEST_F(Relay, AnyOtherPolicySendsUnchanged) {
    for (const std::uint32_t policy : words{0, 4, 99}) {
        packet::set({.option_state = 1, .policy = policy});
        const message msg = foreign({type(1), option82({.vlan = 7}), packet::end()});
        decide(msg);
        expect_only_datagram(server, encode(relayed(msg, msg.options, other_relay)));
        EXPECT_EQ(decision_lines(), (trace_lines{{101, policy_line}}));
    }
}

TEST_F(Relay, ForeignRequestWithoutOption82IsSentUnchanged) {
    for (const std::uint32_t policy : words{1, 2, 3}) {
        packet::set({.option_state = 1, .policy = policy});
        const message msg = foreign({type(1), packet::end()});
        decide(msg);
        expect_only_datagram(server, encode(relayed(msg, msg.options, other_relay)));
        EXPECT_EQ(decision_lines(), (trace_lines{{101, policy_line}}));
    }
}

TEST_F(Relay, ForeignReplyIsSentUnchangedAndUnchecked) {
    for (const std::uint32_t policy : words{1, 2, 3}) {
        packet::set({.option_state = 1, .policy = policy});
        message msg = packet::reply_message({type(2), option82({.vlan = 7}), packet::end()});
        msg.giaddr = other_relay;
        decide(msg);
        expect_only_frame(to_client(relayed(msg, msg.options, other_relay)));
        EXPECT_EQ(decision_lines(), (trace_lines{{101, policy_line}}));
        expect_outcomes({OUTCOME_DELIVERED});
    }
}

TEST_F(Relay, ReplaceOfInvalidOptionsStops) {
    packet::set({.option_state = 1, .policy = 1});
    decide(foreign({type(1), option82()}));
    expect_silence();
    EXPECT_THAT(fake::traces(), testing::Contains(fake::line{104, "ravo_if_handle_pkt (#): Invalid options"}));
    expect_outcomes({OUTCOME_BAD_OPTIONS});
}

TEST_F(Relay, ReplaceAddsBesideAnOption82ThatBeginsOtherwise) {
    packet::set({.option_state = 1, .policy = 1});
    const bytes other = opt(82, hex("02 02 aa bb"));
    const message msg = foreign({type(1), other, packet::end()});
    decide(msg);
    expect_only_datagram(server, encode(relayed(msg, {type(1), other, option82(), packet::end()}, other_relay)));
}

// What stood behind the old option 82 is no chain any more once the new one is written over it: it becomes padding.
TEST_F(Relay, ReplaceTurnsWhatNoLongerIsAChainIntoPadding) {
    packet::set({.option_state = 1, .policy = 1});
    // The old option has 6 bytes: the new one covers the name option's head, and its text is left.
    const message msg = foreign({type(1), opt(82, hex("01 02 aa bb")), opt(12, bytes(40, 'n')), packet::end()});
    decide(msg);
    const std::vector<bytes> out = {type(1), option82(), packet::end(), packet::pad(42)};
    expect_only_datagram(server, encode(relayed(msg, out, other_relay)));
    expect_outcomes({OUTCOME_RELAYED});
}

// As long as it still is a chain it is left as it was.
TEST_F(Relay, ReplaceLeavesAChainBehindTheEndOption) {
    packet::set({.option_state = 1, .policy = 1});
    // The end option overwrites the code of the first option; its length 0 and the rest are a chain of pads.
    const message msg = foreign({type(1), option82({.vlan = 7}), hex("50 00"), packet::pad(3), packet::end()});
    decide(msg);
    const std::vector<bytes> out = {type(1), option82(), hex("ff 00 00 00 00 ff")};
    expect_only_datagram(server, encode(relayed(msg, out, other_relay)));
}

TEST_F(Relay, ReplaceWithEveryKindOfOptionBehind) {
    packet::set({.option_state = 1, .policy = 1});
    for (std::size_t old_size = 1; old_size < 60; ++old_size) {
        for (std::size_t size = 0; size < 60; ++size) {
            bytes old(old_size, 0x33);
            old[0] = 1;
            const message msg = foreign({type(1), opt(82, old), opt(12, bytes(size, 0x77)), packet::end()});
            decide(msg);
            ASSERT_EQ(fake::datagrams.size(), 1U);
            const bytes &sent = fake::datagrams[0].payload;
            // The old length, less the old option, and 20.
            ASSERT_EQ(sent.size(), encode(msg).size() - (old_size + 2) + 20);
            EXPECT_BYTES(encode(relayed(msg, {type(1), option82(), packet::end()}, other_relay)),
                         packet::up_to_end(sent));
            EXPECT_EQ(isValidOptions(sent.data() + 236, static_cast<std::int32_t>(sent.size() - 236)), 1);
        }
    }
}

TEST_F(Relay, ReplaceWithoutRoomSendsTheMessageAsItCame) {
    packet::set({.option_state = 1, .policy = 1});
    const message msg =
        foreign({type(1), opt(12, bytes(255, 'a')), opt(12, bytes(50, 'b')), option82({.vlan = 7}), packet::end()});
    decide(msg);
    expect_only_datagram(server, encode(relayed(msg, msg.options, other_relay)));
    expect_outcomes({OUTCOME_RELAYED});
}

// ---- Options 60 and 61 choose servers only beside option 82 ----

packet::interface_of plain() {
    return {.trusted = 1, .servers = {"198.51.100.1"}};
}

void decide_with_chosen_servers(const message &msg) {
    iface relay = packet::record(plain());
    relay.opt60_count = 1;
    relay.opt60_hosts[0].used = 1;
    std::memcpy(relay.opt60_hosts[0].vendor, "printer", 8);
    relay.opt60_hosts[0].server = fake::address("198.51.100.60");
    relay.opt61_count = 1;
    relay.opt61_hosts[0].used = 1;
    std::memcpy(relay.opt61_hosts[0].client_id, "\1\2\3\4", 4);
    relay.opt61_hosts[0].client_id_len = 4;
    relay.opt61_hosts[0].server = fake::address("198.51.100.61");
    held_message held(encode(msg));
    fake::forget();
    ravo_if_handle_pkt(&relay, held.data(), held.length, origin);
}

strings receivers() {
    strings result;
    for (const fake::datagram &sent : fake::datagrams) result.push_back(sent.to);
    return result;
}

TEST_F(Relay, IdentifiersWithoutOption82UseThePlainServers) {
    decide_with_chosen_servers(
        request({type(1), opt(60, text("printer")), opt(61, hex("01 02 03 04")), packet::end()}));
    EXPECT_EQ(receivers(), strings{"198.51.100.1:67"});
}

TEST_F(Relay, IdentifiersBesideOption82ChooseTheirServers) {
    decide_with_chosen_servers(
        request({type(1), opt(60, text("printer")), opt(61, hex("01 02 03 04")), option82(), packet::end()}));
    EXPECT_EQ(receivers(), (strings{"198.51.100.60:67", "198.51.100.61:67"}));
}

// ---- Sending ----

TEST_F(Relay, RequestWithoutServersIsDropped) {
    decide(request(), {.servers = {}});
    expect_silence();
    EXPECT_EQ(fake::traces().back(), (fake::line{101, "ravo_if_send_server_Unicast (#): server_db[3].s_addr==0\n"}));
    expect_outcomes({OUTCOME_NO_SERVER});
}

TEST_F(Relay, RequestThatCannotBeSentIsDropped) {
    held_message held(encode(request()));
    const iface relay = packet::record();
    fake::script(fake::op::sendto, {.error = ENETUNREACH});
    ravo_if_handle_pkt(&relay, held.data(), held.length, origin);
    expect_silence();
    EXPECT_THAT(fake::traces(),
                testing::Contains(fake::line{
                    104, "ravo_if_send_server_Unicast (#): sock_fd=102, sendmsg error Network is unreachable\n"}));
    expect_outcomes({OUTCOME_SEND_FAILED});
}

TEST_F(Relay, ReplyThatCannotBeSentIsDropped) {
    held_message held(encode(packet::reply_message({type(2), packet::end()})));
    const iface relay = packet::record();
    fake::script(fake::op::sendmsg, {.error = ENXIO});
    ravo_if_handle_pkt(&relay, held.data(), held.length, origin);
    expect_silence();
    EXPECT_THAT(fake::traces(),
                testing::Contains(
                    fake::line{104, "sendEtherFrame (#): raw_sock_fd=101, sendmsg error No such device or address\n"}));
    expect_outcomes({OUTCOME_SEND_FAILED});
}

TEST_F(Relay, EachServerGetsOneCopy) {
    const message msg = request();
    decide(msg, {.servers = {"198.51.100.1", "198.51.100.2", "198.51.100.3", "198.51.100.4"}});
    EXPECT_EQ(receivers(), (strings{"198.51.100.1:67", "198.51.100.2:67", "198.51.100.3:67", "198.51.100.4:67"}));
    for (const fake::datagram &sent : fake::datagrams) EXPECT_BYTES(encode(relayed(msg, msg.options)), sent.payload);
}

}  // namespace
