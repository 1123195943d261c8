// Frames towards clients byte for byte, their checksums, and the check of replies.
#include "ravo_if_client.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "packet_relay.h"

namespace {

using packet::bytes;
using packet::circuit_id;
using packet::client_mac;
using packet::everybody;
using packet::frame_of;
using packet::held_message;
using packet::hex;
using packet::join;
using packet::message;
using packet::opt;
using packet::remote_id;
using packet::type;

using trace_lines = std::vector<fake::line>;

constexpr pkt_origin origin = {100, packet::port_2_1};

class Client : public packet::relay_test {};

message offer() {
    return packet::reply_message({type(2), packet::end()});
}

void deliver(const message &msg, pkt_origin from = origin) {
    fake::forget();
    held_message held(encode(msg));
    const iface relay = packet::record();
    ravo_if_send_to_client(&relay, held.data(), held.data(), held.length, from);
}

// ---- checksumAdd, ipChecksum, udpChecksum ----

TEST_F(Client, ChecksumAddsBigEndianWords) {
    EXPECT_EQ(checksumAdd("", 0, 0), 0);
    EXPECT_EQ(checksumAdd("", 0, 0x1234), 0x1234);
    EXPECT_EQ(checksumAdd(hex("12 34").data(), 2, 0), 0x1234);
    EXPECT_EQ(checksumAdd(hex("12 34 00 01").data(), 4, 0x10), 0x1245);
    EXPECT_EQ(checksumAdd(hex("ff ff 00 01").data(), 4, 0), 0x0001) << "the carry comes back";
    EXPECT_EQ(checksumAdd(hex("ff ff ff ff").data(), 4, 0), 0xFFFF);
}

TEST_F(Client, ChecksumTakesAnOddLastByteAsTheHighOne) {
    EXPECT_EQ(checksumAdd(hex("12").data(), 1, 0), 0x1200);
    EXPECT_EQ(checksumAdd(hex("12 34 56").data(), 3, 0), 0x1234 + 0x5600);
}

TEST_F(Client, ChecksumFoldsAnInitialSumOf32Bits) {
    EXPECT_EQ(checksumAdd("", 0, 0x00012345), 0x2346);
    EXPECT_EQ(checksumAdd("", 0, 0xFFFFFFFF), 0xFFFF);
}

TEST_F(Client, IpChecksumCovers20BytesWhateverTheHeaderLength) {
    bytes header = hex("4f 00 01 2c 00 00 40 00 40 11 ab cd c0 00 02 01 c0 00 02 32 | ff ff");
    ipChecksum(header.data());
    bytes summed = hex("4f 00 01 2c 00 00 40 00 40 11 00 00 c0 00 02 01 c0 00 02 32");
    packet::store16(summed, 10, packet::internet_checksum(summed));
    EXPECT_BYTES(join({summed, hex("ff ff")}), header);
}

TEST_F(Client, UdpChecksumCoversPseudoHeaderHeaderAndPayload) {
    const bytes ip = hex("45 00 00 21 00 00 40 00 40 11 00 00 c0 00 02 01 c0 00 02 32");
    bytes udp = hex("00 43 00 44 00 0d ff ff");
    const bytes payload = hex("01 02 03 04 05");
    udpChecksum(udp.data(), ip.data(), payload.data());
    const bytes summed = join({hex("c0 00 02 01 c0 00 02 32 00 11 00 0d | 00 43 00 44 00 0d 00 00"), payload});
    bytes expected = hex("00 43 00 44 00 0d 00 00");
    packet::store16(expected, 6, packet::internet_checksum(summed));
    EXPECT_BYTES(expected, udp);
}

// deliberate: no substitution by 0xFFFF.
TEST_F(Client, UdpChecksumThatComputesToZeroIsSentAsZero) {
    const bytes ip = hex("45 00 00 1e 00 00 40 00 40 11 00 00 00 00 00 00 00 00 00 00");
    bytes udp = hex("00 43 00 44 00 0a 12 34");
    const unsigned rest = 0x0011 + 0x000A + 0x0043 + 0x0044 + 0x000A;
    bytes payload;
    packet::put16(payload, 0xFFFF - rest);
    udpChecksum(udp.data(), ip.data(), payload.data());
    EXPECT_BYTES(hex("00 43 00 44 00 0a 00 00"), udp);
}

TEST_F(Client, FrameWhoseUdpChecksumIsZeroGoesOutWithZero) {
    message msg = offer();
    msg.secs = 0;
    // The sum is brought to 0xFFFF by the one field that nothing else depends on.
    const bytes with_zero = encode(frame_of{.to_ip = "192.0.2.50", .payload = encode(msg)});
    msg.secs = static_cast<std::uint16_t>(with_zero[40] << 8 | with_zero[41]);
    deliver(msg);
    ASSERT_EQ(fake::frames.size(), 1U);
    EXPECT_BYTES(hex("00 00"), packet::part_of(fake::frames[0].payload, 40, 2));
    expect_only_frame({.to_ip = "192.0.2.50", .payload = encode(msg)});
}

// ---- The frame ----

TEST_F(Client, FrameHeaderByteForByte) {
    deliver(offer());
    ASSERT_EQ(fake::frames.size(), 1U);
    packet::expect_descriptor(fake::frames[0], {});
    bytes header =
        hex("02 c1 1e 00 00 01   # Ethernet destination: the client\n"
            "00 00 5e 00 53 01   # Ethernet source: the relay interface\n"
            "08 00               # IPv4, no tag\n"
            "45 00               # version, header length, type of service\n"
            "01 10               # total length 20 + 8 + 244\n"
            "00 00 40 00         # identification, don't fragment\n"
            "40 11               # time to live 64, UDP\n"
            "00 00               # checksum, below\n"
            "c0 00 02 01         # source 192.0.2.1\n"
            "c0 00 02 32         # destination 192.0.2.50\n"
            "00 43 00 44         # ports 67, 68\n"
            "00 fc               # UDP length 8 + 244\n"
            "00 00               # checksum, below\n");
    ASSERT_EQ(header.size(), 42U);
    const bytes whole = encode(frame_of{.to_ip = "192.0.2.50", .payload = encode(offer())});
    header[24] = whole[24];
    header[25] = whole[25];
    header[40] = whole[40];
    header[41] = whole[41];
    EXPECT_BYTES(join({header, encode(offer())}), fake::frames[0].payload);
    // The sum over a correct header is 0xFFFF: its complement is 0.
    EXPECT_EQ(packet::internet_checksum(packet::part_of(fake::frames[0].payload, 14, 20)), 0U);
}

TEST_F(Client, FrameLeavesByItsInterfaceWithTheIngressRecord) {
    fake::forget();
    held_message held(encode(offer()));
    const iface relay = packet::record({.vlan = 4094, .address = "10.9.8.7", .mac = hex("02 aa bb cc dd ee")});
    ravo_if_send_to_client(&relay, held.data(), held.data(), held.length, {0xDEADBEEF, 0x80000001});
    expect_only_frame({.from_mac = hex("02 aa bb cc dd ee"),
                       .from_ip = "10.9.8.7",
                       .to_ip = "192.0.2.50",
                       .payload = encode(offer())},
                      {.ifindex = 5118, .vlan = 0xDEADBEEF, .port = 0x80000001});
}

TEST_F(Client, MessagesOfEveryLengthAreSummed) {
    for (std::size_t size = 0; size < 40; ++size) {
        message msg = offer();
        bytes name(size);
        for (std::size_t i = 0; i < size; ++i) name[i] = static_cast<std::uint8_t>(0xF0 + i);
        msg.options = {type(2), opt(12, name), packet::end()};
        deliver(msg);
        expect_only_frame({.to_ip = "192.0.2.50", .payload = encode(msg)});
    }
}

TEST_F(Client, SendingTracesTheseLines) {
    deliver(offer());
    const trace_lines expected = {{101, "ravo_if_send_to_client (#)\n"},
                                  {101, "sendEtherFrame (#): interface=vlan100, face->if_maclen=6, sizeof 6\n"},
                                  {101, "===========msg ====================\n"},
                                  {101, "sendEtherFrame (#): raw_sock_fd=101, res 286"},
                                  {101, "interface=vlan100\n"},
                                  {101, "iface->if_ip 192.0.2.1\n"},
                                  {101, "iface->if_mac 00.00.5e.00.53.01, iface->if_maclen=6\n"}};
    EXPECT_EQ(fake::traces(), expected);
    expect_outcomes({OUTCOME_DELIVERED});
}

TEST_F(Client, FailedSendIsTracedAndNotRepeated) {
    fake::script(fake::op::sendmsg, {.error = ENETDOWN});
    deliver(offer());
    expect_silence();
    const trace_lines expected = {{101, "ravo_if_send_to_client (#)\n"},
                                  {101, "sendEtherFrame (#): interface=vlan100, face->if_maclen=6, sizeof 6\n"},
                                  {104, "sendEtherFrame (#): raw_sock_fd=101, sendmsg error Network is down\n"},
                                  {101, "===========msg ====================\n"},
                                  {101, "sendEtherFrame (#): raw_sock_fd=101, res -1"},
                                  {101, "interface=vlan100\n"},
                                  {101, "iface->if_ip 192.0.2.1\n"},
                                  {101, "iface->if_mac 00.00.5e.00.53.01, iface->if_maclen=6\n"}};
    EXPECT_EQ(fake::traces(), expected);
    expect_outcomes({OUTCOME_SEND_FAILED});
}

TEST_F(Client, HardwareAddressMustHave6Bytes) {
    held_message held(encode(offer()));
    for (const std::uint32_t maclen : {0U, 5U, 7U, 16U}) {
        const iface relay = packet::record({.maclen = maclen});
        EXPECT_DEATH(ravo_if_send_to_client(&relay, held.data(), held.data(), held.length, origin),
                     "user/src/ravo_if:[0-9]+: sendEtherFrame: Assertion 'iface->if_maclen == "
                     "sizeof\\(frame->eth.ether_dhost\\)' failed");
    }
}

// ---- Who a reply goes to ----

struct delivery {
    std::uint8_t htype;
    std::uint8_t hlen;
    std::uint16_t flags;
    std::string yiaddr;
    bytes to_mac;
    std::string to_ip;
};

TEST_F(Client, MacAndAddressAreChosenIndependently) {
    const std::vector<delivery> rows = {
        {1, 6, 0x0000, "192.0.2.50", client_mac, "192.0.2.50"},
        {1, 6, 0x8000, "192.0.2.50", client_mac, "255.255.255.255"},
        {1, 6, 0x0000, "0.0.0.0", client_mac, "255.255.255.255"},
        {1, 6, 0x8000, "0.0.0.0", client_mac, "255.255.255.255"},
        {6, 6, 0x0000, "192.0.2.50", everybody, "192.0.2.50"},
        {1, 5, 0x0000, "192.0.2.50", everybody, "192.0.2.50"},
        {1, 16, 0x8000, "192.0.2.50", everybody, "255.255.255.255"},
        {0, 0, 0x0000, "0.0.0.0", everybody, "255.255.255.255"},
        {1, 6, 0x7FFF, "192.0.2.50", client_mac, "192.0.2.50"},  // only the top bit is the broadcast bit
    };
    for (const delivery &row : rows) {
        message msg = offer();
        msg.htype = row.htype;
        msg.hlen = row.hlen;
        msg.flags = row.flags;
        msg.yiaddr = row.yiaddr;
        deliver(msg);
        expect_only_frame({.to_mac = row.to_mac, .to_ip = row.to_ip, .payload = encode(msg)});
    }
}

TEST_F(Client, ClientAndRelayAddressAreNotConsulted) {
    message msg = offer();
    msg.yiaddr = "0.0.0.0";
    msg.ciaddr = "192.0.2.60";
    msg.giaddr = "192.0.2.61";
    deliver(msg);
    expect_only_frame({.to_ip = "255.255.255.255", .payload = encode(msg)});
}

TEST_F(Client, OnlyRepliesAreDelivered) {
    for (const std::uint8_t op : bytes{0, 1, 3}) {
        message msg = offer();
        msg.op = op;
        held_message held(encode(msg));
        const iface relay = packet::record();
        EXPECT_DEATH(ravo_if_send_to_client(&relay, held.data(), held.data(), held.length, origin),
                     "user/src/ravo_if:[0-9]+: ravo_if_send_to_client: Assertion 'header->op == opBOOTREPLY' failed");
    }
}

// ---- Rebroadcast ----

TEST_F(Client, LocalRelayBroadcastsFromPort68To67) {
    message msg;
    msg.flags = 0;
    msg.yiaddr = "192.0.2.50";
    held_message held(encode(msg));
    const iface relay = packet::record();
    ravo_if_send_local_relay(&relay, held.data(), held.data(), held.length, origin);
    expect_only_frame({.to_mac = everybody, .from_port = 68, .to_port = 67, .payload = encode(msg)});
    expect_outcomes({OUTCOME_REBROADCAST});
    EXPECT_EQ(fake::traces().front(),
              (fake::line{101, "sendEtherFrame (#): interface=vlan100, face->if_maclen=6, sizeof 6\n"}));
}

TEST_F(Client, LocalRelaySendsOnlyRequests) {
    for (const std::uint8_t op : bytes{0, 2, 3}) {
        message msg;
        msg.op = op;
        held_message held(encode(msg));
        const iface relay = packet::record();
        EXPECT_DEATH(
            ravo_if_send_local_relay(&relay, held.data(), held.data(), held.length, origin),
            "user/src/ravo_if:[0-9]+: ravo_if_send_local_relay: Assertion 'header->op == opBOOTREQUEST' failed");
    }
}

// ---- ravo_option_check_reply ----

struct checked {
    int result;
    trace_lines lines;
    std::vector<relay_outcome> outcomes;
    bool remembered;  // the transaction is still there

    bool operator==(const checked &) const = default;
};

void PrintTo(const checked &value, std::ostream *out) {
    *out << value.result << ' ' << testing::PrintToString(value.lines) << ' ' << testing::PrintToString(value.outcomes)
         << (value.remembered ? " remembered" : " forgotten");
}

// Checks a reply whose option 82 has this content.
checked check(const bytes &content, const packet::interface_of &via = {}) {
    fake::forget();
    const message msg = packet::reply_message({type(2), opt(82, content), packet::end()});
    held_message held(encode(msg));
    const iface relay = packet::record(via);
    const int result = ravo_option_check_reply(&relay, held.first_option() + 5, held.data());
    return {result, fake::traces(), fake::outcomes, !packet::transaction(msg).empty()};
}

trace_lines check_lines(const std::string &last, int level = 101) {
    return {{101, "ravo_option_check_reply (#): rx_if=vlan100\n"}, {level, "ravo_option_check_reply (#): " + last}};
}

const trace_lines accepted = check_lines("op82_data is valide\n");
const trace_lines bad_circuit = check_lines("option 82 circuit id content not matched, drop\n");
const trace_lines bad_remote = check_lines("option 82 remote id content not matched, drop\n");
const trace_lines no_transaction =
    check_lines("Can't find option 82 circuit id DB for client 02:C1:1E:00:00:01,xid=D4C3B2A1 drop\n", 103);

void remember() {
    packet::remember(packet::reply_message({}));
}

TEST_F(Client, CheckedReplyPassesAndItsTransactionIsFinished) {
    remember();
    EXPECT_EQ(check(join({circuit_id({}), remote_id({})})), (checked{1, accepted, {}, false}));
    EXPECT_EQ(check(join({circuit_id({}), remote_id({})})),
              (checked{0, no_transaction, {OUTCOME_UNKNOWN_TRANSACTION}, false}));
}

TEST_F(Client, ReplyWithoutOption82IsRefused) {
    remember();
    fake::forget();
    const message msg = packet::reply_message({type(2), packet::end()});
    held_message held(encode(msg));
    const iface relay = packet::record();
    EXPECT_EQ(ravo_option_check_reply(&relay, nullptr, held.data()), 0);
    EXPECT_EQ(fake::traces(), check_lines("op82_data is null\n"));
    expect_outcomes({OUTCOME_NO_OPTION82});
    EXPECT_EQ(packet::transaction(msg), (std::vector<std::uint32_t>{2, 1}));
}

TEST_F(Client, EachByteOfTheCircuitIdIsCompared) {
    for (std::size_t i = 2; i < 8; ++i) {
        remember();
        bytes content = join({circuit_id({}), remote_id({})});
        content[i] ^= 0x40;
        EXPECT_EQ(check(content), (checked{0, bad_circuit, {OUTCOME_CIRCUIT_ID}, true})) << i;
    }
}

TEST_F(Client, EachByteOfTheRemoteIdIsCompared) {
    for (std::size_t i = 10; i < 18; ++i) {
        remember();
        bytes content = join({circuit_id({}), remote_id({})});
        content[i] ^= 0x40;
        // The circuit id matched, so the transaction is finished although the reply is refused.
        EXPECT_EQ(check(content), (checked{0, bad_remote, {OUTCOME_REMOTE_ID}, false})) << i;
    }
}

TEST_F(Client, ModuleAndPortAreCutToOneByte) {
    packet::remember(packet::reply_message({}), 0x102, 0xFFFFFF01);
    EXPECT_EQ(check(join({circuit_id({.module = 2, .port = 1}), remote_id({})})), (checked{1, accepted, {}, false}));
}

TEST_F(Client, ReplyWithACircuitIdOnlyPasses) {
    remember();
    EXPECT_EQ(check(circuit_id({})), (checked{1, accepted, {}, false}));
}

// The comparison has the length of the reply's own sub-option.
TEST_F(Client, ShorterCircuitIdIsComparedAsFarAsItGoes) {
    for (std::uint8_t length = 0; length <= 6; ++length) {
        remember();
        const bytes content = join({{1, length}, packet::part_of(circuit_id({}), 2, length), remote_id({})});
        EXPECT_EQ(check(content), (checked{1, accepted, {}, false})) << int{length};
    }
}

TEST_F(Client, LongerCircuitIdGoesOnAgainstZeros) {
    for (std::uint8_t length = 7; length <= 40; ++length) {
        remember();
        bytes value = packet::part_of(circuit_id({}), 2, 6);
        value.resize(length);
        EXPECT_EQ(check(join({{1, length}, value, remote_id({})})), (checked{1, accepted, {}, false})) << int{length};
        remember();
        value.back() = 1;
        EXPECT_EQ(check(join({{1, length}, value, remote_id({})})),
                  (checked{0, bad_circuit, {OUTCOME_CIRCUIT_ID}, true}))
            << int{length};
    }
}

TEST_F(Client, LongerRemoteIdGoesOnAgainstZeros) {
    bytes value = packet::part_of(remote_id({}), 2, 8);
    value.resize(12);
    remember();
    EXPECT_EQ(check(join({circuit_id({}), {2, 12}, value})), (checked{1, accepted, {}, false}));
    remember();
    value[9] = 1;
    EXPECT_EQ(check(join({circuit_id({}), {2, 12}, value})), (checked{0, bad_remote, {OUTCOME_REMOTE_ID}, false}));
}

TEST_F(Client, NeitherSubOptionWhereItBelongsPasses) {
    EXPECT_EQ(check(hex("09 02 aa bb 05 01 cc")), (checked{1, accepted, {}, false}));
}

TEST_F(Client, RemoteIdFirstIsNotLookedAt) {
    EXPECT_EQ(check(join({remote_id({.mac = hex("aa aa aa aa aa aa")})})), (checked{1, accepted, {}, false}));
}

TEST_F(Client, RemoteIdBehindAnotherFirstSubOptionIsChecked) {
    EXPECT_EQ(check(join({hex("09 02 aa bb"), remote_id({})})), (checked{1, accepted, {}, false}));
    EXPECT_EQ(check(join({hex("09 02 aa bb"), remote_id({.mac = hex("00 00 5e 00 53 77")})})),
              (checked{0, bad_remote, {OUTCOME_REMOTE_ID}, false}));
}

TEST_F(Client, RemoteIdThirdIsNotLookedAt) {
    remember();
    EXPECT_EQ(check(join({circuit_id({}), hex("06 01 aa"), remote_id({.mac = hex("aa aa aa aa aa aa")})})),
              (checked{1, accepted, {}, false}));
}

// ---- Hostile sub-options: whatever they claim, nothing outside the buffer is read ----

// Option 82 stands with its last byte at the end of a message that fills the buffer.
TEST_F(Client, EveryClaimedLengthAtTheEndOfTheBuffer) {
    const iface relay = packet::record();
    for (std::size_t room = 1; room <= 20; ++room) {
        for (unsigned claimed = 0; claimed < 256; ++claimed) {
            held_message held(encode(packet::reply_message({})));
            xid_entry entry{};
            std::memcpy(&entry.xid, held.data() + 4, 4);
            entry.module = 2;
            entry.port = 1;
            ASSERT_EQ(ravo_db_xid_update(&entry), 1);
            const bytes content = join({circuit_id({}), remote_id({})});
            std::uint8_t *op82 = held.data() + 1024 - room;
            std::memcpy(op82, content.data(), std::min(room, content.size()));
            if (room > 1) op82[1] = static_cast<std::uint8_t>(claimed);
            const int first = ravo_option_check_reply(&relay, op82, held.data());
            EXPECT_TRUE(first == 0 || first == 1);
            if (claimed == 6) {
                EXPECT_EQ(first, 1) << "what is cut off cannot differ, room " << room;
            }
            // And with a hostile remote id behind a good circuit id.
            if (room < 10) continue;
            ASSERT_EQ(ravo_db_xid_update(&entry), 1);
            op82[1] = 6;
            op82[9] = static_cast<std::uint8_t>(claimed);
            const int second = ravo_option_check_reply(&relay, op82, held.data());
            EXPECT_TRUE(second == 0 || second == 1);
        }
    }
}

// The same through the relay's own door, in a message of 1000 bytes whose last option is option 82.
TEST_F(Client, Option82AtTheVeryEndOfALargeReply) {
    packet::store();
    packet::set({.option_state = 1});
    for (unsigned first = 0; first < 256; ++first) {
        for (const unsigned second : {0U, 1U, 8U, 10U, 17U, 128U, 255U}) {
            bytes content = join({circuit_id({}), remote_id({})});
            content[1] = static_cast<std::uint8_t>(first);
            content[9] = static_cast<std::uint8_t>(second);
            message msg = packet::reply_message({type(2)});
            msg.options.push_back(packet::pad(760 - 3 - 20 - 1));
            msg.options.push_back(opt(82, content));
            msg.options.push_back(packet::end());
            ASSERT_EQ(encode(msg).size(), 1000U);
            packet::remember(msg);
            fake::forget();
            packet::receive(encode(msg), {.destination = "192.0.2.1", .source_port = 67});
            ASSERT_FALSE(fake::outcomes.empty());
            const relay_outcome outcome = fake::outcomes.back();
            EXPECT_EQ(fake::frames.size(), outcome == OUTCOME_DELIVERED ? 1U : 0U) << first << ' ' << second;
            // 6 bytes and 8 bytes are the true lengths; shorter ones are compared as far as they go.
            if (first == 6) {
                const bool cut = second <= 8;
                EXPECT_EQ(outcome, cut ? OUTCOME_DELIVERED : OUTCOME_REMOTE_ID) << second;
            }
            if (first > 6) {
                EXPECT_EQ(outcome, OUTCOME_CIRCUIT_ID) << first;
            }
        }
    }
}

}  // namespace
