// The relay's sockets, and the handler of the layer-2 channel.
#include "ravo_if_socket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "packet_relay.h"

namespace {

using packet::bytes;
using packet::hex;
using packet::join;
using packet::message;
using packet::opt;
using packet::receive;
using packet::text;
using packet::type;

using strings = std::vector<std::string>;
using trace_lines = std::vector<fake::line>;

// ---- Sockets ----

class Sockets : public testing::Test {
  protected:
    void SetUp() override {
        fake::reset();
        ravo_db_init();
        fake::forget();
    }
    void TearDown() override {
        ravo_if_close_all_fd();
        ravo_db_exit();
        EXPECT_EQ(fake::leftovers(), strings{});
    }
};

const strings created = {"socket(24, 3, 0) = 100", "socket(17, 3, 65535) = 101", "socket(2, 2, 17) = 102",
                         "setsockopt(102, 1, 2, 1) = 0", "bind(102, 0.0.0.0:68) = 0"};

TEST_F(Sockets, AreClosedAtFirst) {
    EXPECT_EQ(ravo_server_sock_fd, -1);
    EXPECT_EQ(ravo_raw_sock_fd, -1);
    EXPECT_EQ(ravo_listen_sock_fd, -1);
    EXPECT_EQ(ravo_l2_sock_fd, -1);
}

TEST_F(Sockets, CreateOpensChannelRawAndServerSocketInThisOrder) {
    EXPECT_EQ(RAVO_IF_Create_fd(), 0U);
    EXPECT_EQ(fake::socket_calls, created);
    EXPECT_EQ(ravo_l2_sock_fd, 100);
    EXPECT_EQ(ravo_raw_sock_fd, 101);
    EXPECT_EQ(ravo_server_sock_fd, 102);
    EXPECT_EQ(ravo_listen_sock_fd, -1) << "the listen socket is not opened";
    ASSERT_EQ(fake::readers.size(), 1U);
    EXPECT_EQ(fake::readers[0].name, "ravo_r");
    EXPECT_EQ(fake::readers[0].fd, 100);
    EXPECT_EQ(fake::readers[0].repeat, 1);
    EXPECT_EQ(fake::readers[0].handler, ravo_l2_listen_hdlr);
    EXPECT_EQ(fake::readers[0].arg, nullptr);
    const trace_lines expected = {{101, "RAVO_IF_Create_fd (#)++\n"},
                                  {101, "RAVO_IF_Create_fd (#): Socket create successfully\n"}};
    EXPECT_EQ(fake::traces(), expected);
}

TEST_F(Sockets, CreatingTwiceOpensEachSocketOnce) {
    EXPECT_EQ(RAVO_IF_Create_fd(), 0U);
    EXPECT_EQ(RAVO_IF_Create_fd(), 0U);
    EXPECT_EQ(fake::socket_calls, created);
    EXPECT_EQ(fake::readers.size(), 1U);
    const trace_lines expected = {{101, "RAVO_IF_Create_fd (#)++\n"},
                                  {101, "RAVO_IF_Create_fd (#): Socket create successfully\n"},
                                  {101, "RAVO_IF_Create_fd (#)++\n"},
                                  {101, "ravo_if_create_server_tx_socket (#): server_sock_fd=102 != 0\n"},
                                  {101, "RAVO_IF_Create_fd (#): Socket create successfully\n"}};
    EXPECT_EQ(fake::traces(), expected);
}

TEST_F(Sockets, ChannelThatCannotBeOpenedDoesNotStopTheOthers) {
    fake::script(fake::op::socket, {.error = EAFNOSUPPORT});
    EXPECT_EQ(RAVO_IF_Create_fd(), 0U);
    EXPECT_EQ(ravo_l2_sock_fd, -1);
    EXPECT_EQ(ravo_raw_sock_fd, 100);
    EXPECT_EQ(ravo_server_sock_fd, 101);
    EXPECT_EQ(fake::readers.size(), 0U);
}

// deliberate: the results of the three cases differ.
TEST_F(Sockets, ChannelResultsAreOneDescriptorAndZero) {
    fake::script(fake::op::socket, {});
    EXPECT_EQ(ravo_if_create_l2_fd(), 0);
    EXPECT_EQ(ravo_if_create_l2_fd(), 1);
    EXPECT_EQ(ravo_if_create_l2_fd(), 100);
}

TEST_F(Sockets, ChannelReaderThatCannotBeRegisteredIsNotNoticed) {
    fake::script(fake::op::add_reader);
    EXPECT_EQ(ravo_if_create_l2_fd(), 1);
    EXPECT_EQ(ravo_l2_sock_fd, 100);
    EXPECT_EQ(fake::readers.size(), 0U);
}

TEST_F(Sockets, RawSocketIsOpenedOnce) {
    EXPECT_EQ(ravo_if_create_raw_socket(), 100);
    EXPECT_EQ(ravo_if_create_raw_socket(), 100);
    EXPECT_EQ(fake::socket_calls, strings{"socket(17, 3, 65535) = 100"});
}

TEST_F(Sockets, FailingSocketsEndTheProcess) {
    fake::script(fake::op::socket, {.error = EPERM});
    EXPECT_EXIT(ravo_if_create_raw_socket(), testing::ExitedWithCode(1), "socket\\(\\): Operation not permitted");
    EXPECT_EXIT(ravo_if_create_server_tx_socket(), testing::ExitedWithCode(1), "socket\\(\\): Operation not permitted");
    EXPECT_EXIT(ravo_if_create_listen_fd(), testing::ExitedWithCode(1), "socket\\(\\): Operation not permitted");
    fake::clear_scripts();
    fake::script(fake::op::bind, {.error = EADDRINUSE});
    EXPECT_EXIT(ravo_if_create_server_tx_socket(), testing::ExitedWithCode(1), "bind\\(\\): Address already in use");
}

TEST_F(Sockets, ListenSocketIsBoundToPort67WithItsOptions) {
    EXPECT_EQ(ravo_if_create_listen_fd(), 100);
    EXPECT_EQ(ravo_if_create_listen_fd(), 100);
    const strings expected = {"socket(2, 2, 17) = 100", "setsockopt(100, 0, 8, 1) = 0", "setsockopt(100, 1, 6, 1) = 0",
                              "setsockopt(100, 1, 2, 1) = 0", "bind(100, 0.0.0.0:67) = 0"};
    EXPECT_EQ(fake::socket_calls, expected);
    ASSERT_EQ(fake::readers.size(), 1U);
    EXPECT_EQ(fake::readers[0].name, "ravo");
    EXPECT_EQ(fake::readers[0].handler, ravo_if_listen_hdlr);
    EXPECT_EQ(fake::traces(), (trace_lines{{101, "ravo_if_create_listen_fd (#) listen_fd=100"}}));
    fake::drop_reader("ravo");
    fake::drop_socket(100);
}

TEST_F(Sockets, ListenSocketIsKeptWhenItsReaderCannotBeRegistered) {
    fake::script(fake::op::add_reader);
    EXPECT_EQ(ravo_if_create_listen_fd(), -1);
    EXPECT_EQ(ravo_listen_sock_fd, 100);
    EXPECT_EQ(ravo_if_create_listen_fd(), 100);
    fake::drop_socket(100);
}

TEST_F(Sockets, ClosingClosesEachOpenSocketAndDeletesTheReader) {
    RAVO_IF_Create_fd();
    fake::forget();
    EXPECT_EQ(ravo_if_close_all_fd(), 0);
    EXPECT_EQ(fake::socket_calls, (strings{"close(100) = 0", "close(101) = 0", "close(102) = 0"}));
    EXPECT_EQ(fake::readers.size(), 0U);
    EXPECT_EQ(ravo_l2_sock_fd, -1);
    EXPECT_EQ(ravo_raw_sock_fd, -1);
    EXPECT_EQ(ravo_server_sock_fd, -1);
    EXPECT_EQ(fake::traces(), (trace_lines{{101, "ravo_if_close_all_fd (#): Close all socket successfully \n"}}));
}

TEST_F(Sockets, ClosingClosedSocketsOnlyTraces) {
    EXPECT_EQ(ravo_if_close_all_fd(), 0);
    EXPECT_EQ(fake::socket_calls, strings{});
    EXPECT_EQ(fake::traces(), (trace_lines{{101, "ravo_if_close_all_fd (#): Close all socket successfully \n"}}));
}

// deliberate: the listen socket is forgotten, neither closed nor its reader deleted.
TEST_F(Sockets, ClosingForgetsTheListenSocket) {
    ravo_if_create_listen_fd();
    fake::forget();
    ravo_if_close_all_fd();
    EXPECT_EQ(ravo_listen_sock_fd, -1);
    EXPECT_EQ(fake::socket_calls, strings{});
    EXPECT_EQ(fake::readers.size(), 1U);
    fake::drop_reader("ravo");
    fake::drop_socket(100);
}

// deliberate: both readers keep their handle in one place; the later one is the one that is deleted.
TEST_F(Sockets, ClosingDeletesTheReaderRegisteredLast) {
    ravo_if_create_l2_fd();
    ravo_if_create_listen_fd();
    ravo_if_close_all_fd();
    ASSERT_EQ(fake::readers.size(), 1U);
    EXPECT_EQ(fake::readers[0].name, "ravo_r");
    fake::drop_reader("ravo_r");
    fake::drop_socket(101);
}

TEST_F(Sockets, FailingCloseEndsTheProcess) {
    RAVO_IF_Create_fd();
    fake::script(fake::op::close, {.error = EIO});
    EXPECT_EXIT(ravo_if_close_all_fd(), testing::ExitedWithCode(1), "close\\(\\): Input/output error");
    fake::clear_scripts();
}

// ---- ravo_if_get_server ----

class GetServer : public packet::relay_test {};

TEST_F(GetServer, FindsAServerInAnySlot) {
    for (std::size_t slot = 0; slot < 4; ++slot) {
        iface stored = packet::record({.servers = {}});
        stored.server_db[slot] = fake::address("198.51.100.9");
        ASSERT_EQ(ravo_db_if_add(&stored), 1);
        fake::forget();
        EXPECT_EQ(ravo_if_get_server(&stored), 1) << slot;
        EXPECT_EQ(fake::traces(), (trace_lines{{104, "ravo_if_get_server # \n"}}));
    }
}

TEST_F(GetServer, LooksAtTheStoredRecordNotAtTheOneGiven) {
    packet::store({.servers = {}});
    const iface given = packet::record({.servers = {"198.51.100.1"}});
    EXPECT_EQ(ravo_if_get_server(&given), 0);
    EXPECT_EQ(fake::traces(), trace_lines{});
}

TEST_F(GetServer, UnknownInterfaceHasNone) {
    const iface given = packet::record();
    EXPECT_EQ(ravo_if_get_server(&given), 0);
}

TEST_F(GetServer, InterfaceIsFoundByItsNumber) {
    packet::store({.vlan = 200});
    iface given = packet::record({.vlan = 100});
    given.ifindex = 1224;
    EXPECT_EQ(ravo_if_get_server(&given), 1);
}

// ---- The handler of the layer-2 channel ----

class Channel : public packet::relay_test {};

message typed(std::uint8_t value) {
    message msg;
    msg.options = {type(value), packet::end()};
    return msg;
}

trace_lines reception(const std::string &dst, int vlan, std::size_t received) {
    return {{101, "ravo_l2_listen_hdlr (#): Received DHCP packet dst IP=" + dst +
                      ", ipi_ifindex=" + std::to_string(vlan) + "\n"},
            {101, "===RX Bootstrap Protocol====\n"},
            {101, "size=" + std::to_string(received) + "====\n"}};
}

trace_lines one(int level, const std::string &line) {
    return {{level, line}};
}

const std::string local_relay_off = "ravo_l2_listen_hdlr (#): dhcp local relay is disabled, state = 0 \n";

TEST_F(Channel, EachMessageTypeHasItsCounter) {
    // In the order they are shown: DISCOVER, OFFER, REQUEST, ACK, DECLINE, NAK, INFORM, RELEASE.
    const std::vector<std::vector<std::uint32_t>> rows = {
        {1, 0, 0, 0, 0, 0, 0, 0},  // 1 DISCOVER
        {0, 1, 0, 0, 0, 0, 0, 0},  // 2 OFFER
        {0, 0, 1, 0, 0, 0, 0, 0},  // 3 REQUEST
        {0, 0, 0, 0, 1, 0, 0, 0},  // 4 DECLINE
        {0, 0, 0, 1, 0, 0, 0, 0},  // 5 ACK
        {0, 0, 0, 0, 0, 1, 0, 0},  // 6 NAK
        {0, 0, 0, 0, 0, 0, 0, 1},  // 7 RELEASE
        {0, 0, 0, 0, 0, 0, 1, 0},  // 8 INFORM
    };
    packet::store();
    for (std::size_t row = 0; row < rows.size(); ++row) {
        const auto before = packet::counters();
        receive(encode(typed(static_cast<std::uint8_t>(row + 1))));
        EXPECT_EQ(packet::difference(packet::counters(), before), rows[row]) << "type " << row + 1;
    }
}

TEST_F(Channel, UnknownTypesAreDroppedSilentlyAndUncounted) {
    packet::store();
    for (const std::uint8_t value : bytes{0, 9, 10, 53, 200, 255}) {
        fake::forget();
        receive(encode(typed(value)));
        expect_silence();
        EXPECT_EQ(fake::traces(), trace_lines{}) << int{value};
        expect_outcomes({OUTCOME_UNKNOWN_MESSAGE_TYPE});
    }
    EXPECT_EQ(counted(), packet::nothing_counted);
}

TEST_F(Channel, WithoutAMessageTypeDropped) {
    packet::store();
    message msg;
    msg.options = {opt(12, text("pc")), packet::end()};
    receive(encode(msg));
    expect_silence();
    EXPECT_EQ(fake::traces(), one(101, "ravo_l2_listen_hdlr (#): No DHCP type found\n"));
    EXPECT_EQ(counted(), packet::nothing_counted);
    expect_outcomes({OUTCOME_NO_MESSAGE_TYPE});
}

TEST_F(Channel, ReceiveErrorIsTraced) {
    fake::script(fake::op::recvfrom, {.error = EIO});
    receive(encode(typed(1)));
    EXPECT_EQ(fake::traces(), one(101, "ravo_l2_listen_hdlr (#): Read socket 100 error\n"));
    expect_silence();
    expect_outcomes({});
}

TEST_F(Channel, InvalidHeaderIsDroppedBeforeItIsCounted) {
    packet::store();
    message msg = typed(1);
    msg.flags = 0x0001;
    receive(encode(msg));
    expect_silence();
    EXPECT_EQ(fake::traces(), one(101, "isValidHeader (#): reason=Invalid flags field\n"));
    EXPECT_EQ(counted(), packet::nothing_counted);
    expect_outcomes({OUTCOME_BAD_FLAGS});
}

TEST_F(Channel, InvalidOptionsAreDroppedWithoutATrace) {
    packet::store();
    message msg = typed(1);
    msg.options = {type(1)};
    receive(encode(msg));
    expect_silence();
    EXPECT_EQ(fake::traces(), trace_lines{});
    EXPECT_EQ(counted(), packet::nothing_counted);
    expect_outcomes({OUTCOME_BAD_OPTIONS});
}

TEST_F(Channel, MessagesAreCountedWhenRelayingIsOff) {
    packet::store();
    packet::set({.relay_enable = 0});
    fake::forget();
    const bytes msg = encode(typed(1));
    receive(msg);
    expect_silence();
    EXPECT_EQ(counted(), (std::vector<std::uint32_t>{1, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(fake::traces(),
              packet::lines({reception("255.255.255.255", 100, msg.size() + 24),
                             one(101, "ravo_l2_listen_hdlr (#): dhcp relay is disabled, state = 0 \n")}));
    expect_outcomes({OUTCOME_RELAY_OFF});
}

TEST_F(Channel, BroadcastIsMatchedToTheVlansInterface) {
    packet::store({.vlan = 100, .address = "192.0.2.1", .servers = {"198.51.100.1"}});
    packet::store({.vlan = 200, .address = "192.0.2.2", .servers = {"198.51.100.2"}});
    const message msg = typed(1);
    receive(encode(msg), {.vlan = 200});
    message relayed = msg;
    relayed.hops = 1;
    relayed.giaddr = "192.0.2.2";
    expect_only_datagram("198.51.100.2:67", encode(relayed));
    expect_outcomes({OUTCOME_RELAYED});
}

TEST_F(Channel, BroadcastOnAVlanWithoutARecordIsDropped) {
    packet::store({.vlan = 100});
    const bytes msg = encode(typed(3));
    receive(msg, {.vlan = 300});
    expect_silence();
    EXPECT_EQ(fake::traces(),
              packet::lines({reception("255.255.255.255", 300, msg.size() + 24),
                             one(101,
                                 "ravo_l2_listen_hdlr (#): can't get relay interface by if_idx=1324 from "
                                 "interfaceDB\n")}));
    EXPECT_EQ(counted(), (std::vector<std::uint32_t>{0, 0, 1, 0, 0, 0, 0, 0}));
    expect_outcomes({OUTCOME_NO_INTERFACE});
}

TEST_F(Channel, UnicastIsMatchedToTheInterfaceWithTheAddress) {
    packet::store({.vlan = 100, .address = "192.0.2.1", .servers = {"198.51.100.1"}});
    packet::store({.vlan = 200, .address = "192.0.2.2", .servers = {"198.51.100.2"}});
    receive(encode(typed(3)), {.vlan = 100, .destination = "192.0.2.2"});
    ASSERT_EQ(fake::datagrams.size(), 1U);
    EXPECT_EQ(fake::datagrams[0].to, "198.51.100.2:67");
}

// deliberate: the address in the trace is that of the four bytes behind the destination, the two UDP ports.
TEST_F(Channel, UnicastToNoInterfaceShowsTheBytesBehindTheDestination) {
    packet::store({.vlan = 100});
    const bytes msg = encode(typed(1));
    receive(msg, {.vlan = 100, .destination = "192.0.2.77"});
    expect_silence();
    EXPECT_EQ(fake::traces(),
              packet::lines({reception("192.0.2.77", 100, msg.size() + 24),
                             {{104, "ravo_if_ifinfo_get_by_addr (#): Get interface by addr failed,ip=192.0.2.77\n"},
                              {101,
                               "ravo_l2_listen_hdlr (#): dest IP 0.68.0.67 on received packet doesn't match IP "
                               "address of ingress interface(ifindex=100)\n"}}}));
    expect_outcomes({OUTCOME_NO_ADDRESS});
}

TEST_F(Channel, IngressVlanAndPortComeFromTheSourceRecord) {
    packet::store({.vlan = 4094, .address = "192.0.2.1"});
    packet::set({.option_state = 1});
    receive(encode(typed(1)), {.vlan = 4094, .port = 5120 + 64 * 3 + 17});
    ASSERT_EQ(fake::datagrams.size(), 1U);
    EXPECT_BYTES(packet::option82({.vlan = 4094, .module = 4, .port = 17}),
                 packet::part_of(fake::datagrams[0].payload, 243, 20));
}

// ---- Local relay or not ----

TEST_F(Channel, LocalRelayIsTracedWhenItIsOff) {
    packet::store();
    receive(encode(typed(1)));
    EXPECT_THAT(fake::traces(), testing::Contains(fake::line{101, local_relay_off}));
    EXPECT_EQ(fake::frames.size(), 0U);
}

TEST_F(Channel, LocalRelayIsSkippedWhereAServerIsConfigured) {
    packet::store({.local_relay = 1, .servers = {"198.51.100.1"}});
    const bytes msg = encode(typed(1));
    receive(msg);
    EXPECT_EQ(fake::frames.size(), 0U);
    EXPECT_EQ(fake::datagrams.size(), 1U);
    const trace_lines traces = fake::traces();
    ASSERT_GE(traces.size(), 5U);
    EXPECT_EQ(traces[3], (fake::line{104, "ravo_if_get_server # \n"}));
    EXPECT_EQ(traces[4], (fake::line{101, "ravo_l2_listen_hdlr (#): dhcp local relay is disabled, state = 1 \n"}));
    expect_outcomes({OUTCOME_RELAYED});
}

TEST_F(Channel, LocalRelayStateOtherThanOneIsOff) {
    packet::store({.local_relay = 2, .servers = {}});
    receive(encode(typed(1)));
    EXPECT_EQ(fake::frames.size(), 0U);
    EXPECT_THAT(fake::traces(), testing::Contains(fake::line{
                                    101, "ravo_l2_listen_hdlr (#): dhcp local relay is disabled, state = 2 \n"}));
}

TEST_F(Channel, MessageGoesToLocalRelayAndThenToTheDecisions) {
    packet::store({.local_relay = 1, .servers = {}});
    packet::set({.check = 0});
    fake::forget();
    const message msg = typed(1);
    receive(encode(msg));
    message stamped = msg;
    stamped.options = {type(1), packet::option82(), packet::end()};
    expect_only_frame({.to_mac = packet::everybody, .from_port = 68, .to_port = 67, .payload = encode(stamped)});
    // The decisions see the stamped message: option 82 of a client on an untrusted interface.
    const trace_lines traces = fake::traces();
    EXPECT_EQ(traces[traces.size() - 3], (fake::line{101, "ravo_if_handle_pkt (#): Rx interface=vlan100\n"}));
    EXPECT_EQ(traces[traces.size() - 2], (fake::line{101, "ravo_if_handle_pkt (#):header verified passed\n"}));
    expect_outcomes({OUTCOME_REBROADCAST, OUTCOME_UNTRUSTED_OPTION82});
}

// ---- Sizes ----

relay_outcome outcome_of_received(const bytes &received) {
    fake::forget();
    EXPECT_EQ(fake::receive_on_channel({received, packet::port_2_1, 100}), 1);
    return fake::outcomes.empty() ? OUTCOME_NONE : fake::outcomes.back();
}

TEST_F(Channel, ReceivedCounts) {
    packet::store();
    const bytes good = packet::channel_bytes(encode(typed(1)));
    ASSERT_EQ(good.size(), 268U);
    const std::vector<std::pair<std::size_t, relay_outcome>> rows = {
        {0, OUTCOME_UNKNOWN_OPERATION},   // a zeroed buffer: operation 0
        {23, OUTCOME_UNKNOWN_OPERATION},  //
        {24, OUTCOME_UNKNOWN_OPERATION},  // no byte of the message
        {25, OUTCOME_BAD_OPTIONS},        // the operation alone
        {235, OUTCOME_BAD_OPTIONS},       // no whole fixed header
        {236, OUTCOME_BAD_OPTIONS},       //
        {259, OUTCOME_BAD_OPTIONS},       //
        {260, OUTCOME_NO_MESSAGE_TYPE},   // exactly the fixed header: no option area, no type
        {263, OUTCOME_BAD_OPTIONS},       // part of the cookie
        {264, OUTCOME_BAD_OPTIONS},       // the cookie alone
        {267, OUTCOME_BAD_OPTIONS},       // no end option
        {268, OUTCOME_RELAYED},
    };
    for (const auto &[size, outcome] : rows)
        EXPECT_EQ(outcome_of_received(packet::part_of(good, 0, size)), outcome) << size;
}

TEST_F(Channel, CookieAndEndAloneHaveNoType) {
    packet::store();
    message msg;
    msg.options = {packet::end()};
    EXPECT_EQ(outcome_of_received(packet::channel_bytes(encode(msg))), OUTCOME_NO_MESSAGE_TYPE);
}

TEST_F(Channel, MessageTruncatedAtEveryLength) {
    packet::store();
    packet::set({.option_state = 1});
    message msg;
    msg.options = {type(1), opt(60, text("printer")), opt(61, hex("01 02 03 04")), packet::end()};
    const bytes whole = packet::channel_bytes(encode(msg));
    for (std::size_t size = 0; size < whole.size(); ++size) {
        EXPECT_NE(outcome_of_received(packet::part_of(whole, 0, size)), OUTCOME_RELAYED) << size;
        expect_silence();
    }
    EXPECT_EQ(outcome_of_received(whole), OUTCOME_RELAYED);
}

TEST_F(Channel, EveryClaimedLengthOfEveryOption) {
    packet::store();
    packet::set({.option_state = 1});
    message msg;
    msg.options = {type(1), opt(60, text("printer")), opt(61, hex("01 02 03 04")), packet::end()};
    const bytes whole = packet::channel_bytes(encode(msg));
    const std::vector<std::size_t> length_bytes = {265, 268, 277};
    for (const std::size_t at : length_bytes) {
        for (unsigned claimed = 0; claimed < 256; ++claimed) {
            const bytes changed = packet::with_byte(whole, at, static_cast<std::uint8_t>(claimed));
            const relay_outcome outcome = outcome_of_received(changed);
            EXPECT_TRUE(outcome == OUTCOME_RELAYED || outcome == OUTCOME_BAD_OPTIONS) << at << ' ' << claimed;
            EXPECT_EQ(fake::datagrams.size(), outcome == OUTCOME_RELAYED ? 1U : 0U);
        }
    }
}

TEST_F(Channel, MessageThatFillsTheBufferIsRelayed) {
    packet::store();
    message msg = typed(1);
    bytes data = encode(msg);
    data.resize(1000);
    receive(data);
    message relayed = msg;
    relayed.hops = 1;
    relayed.giaddr = "192.0.2.1";
    bytes expected = encode(relayed);
    expected.resize(1000);
    expect_only_datagram("198.51.100.1:67", expected);
}

TEST_F(Channel, LongerMessageIsCutToWhatTheBufferHolds) {
    packet::store();
    message msg = typed(1);
    bytes data = encode(msg);
    data.resize(1400);
    receive(data);
    ASSERT_EQ(fake::datagrams.size(), 1U);
    EXPECT_EQ(fake::datagrams[0].payload.size(), 1000U);
    EXPECT_THAT(fake::traces(), testing::Contains(fake::line{101, "size=1024====\n"}));
}

TEST_F(Channel, LongerMessageWhoseEndOptionIsCutOffIsDropped) {
    packet::store();
    message msg;
    msg.options = {type(1), opt(12, bytes(255, 'a')), opt(12, bytes(255, 'b')), opt(12, bytes(255, 'c')),
                   packet::end()};
    EXPECT_EQ(outcome_of_received(packet::channel_bytes(encode(msg))), OUTCOME_BAD_OPTIONS);
    expect_silence();
}

TEST_F(Channel, NothingOfAnEarlierMessageIsLeftInTheBuffer) {
    packet::store();
    receive(encode(typed(1)));
    // The second message has no bytes at all behind the channel's headers.
    EXPECT_EQ(outcome_of_received(packet::part_of(packet::channel_bytes(encode(typed(1))), 0, 24)),
              OUTCOME_UNKNOWN_OPERATION);
}

}  // namespace
