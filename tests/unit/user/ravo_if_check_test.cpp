// SPDX-License-Identifier: Apache-2.0
// The check of option 82 in replies.
#include "ravo_if_check.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "packet_relay.h"
#include "ravo_if_option.h"

namespace {

using packet::bytes;
using packet::circuit_id;
using packet::client_mac;
using packet::frame_of;
using packet::held_message;
using packet::hex;
using packet::join;
using packet::message;
using packet::opt;
using packet::remote_id;
using packet::type;

using trace_lines = std::vector<fake::line>;

class Check : public packet::relay_test {};

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
const trace_lines no_transaction = check_lines("Can't find option 82 circuit id DB for client 02:C1:1E:00:00:01,xid=" +
                                                   packet::traced_number("A1B2C3D4", true) + " drop\n",
                                               103);

void remember() {
    packet::remember(packet::reply_message({}));
}

TEST_F(Check, CheckedReplyPassesAndItsTransactionIsFinished) {
    remember();
    EXPECT_EQ(check(join({circuit_id({}), remote_id({})})), (checked{1, accepted, {}, false}));
    EXPECT_EQ(check(join({circuit_id({}), remote_id({})})),
              (checked{0, no_transaction, {OUTCOME_UNKNOWN_TRANSACTION}, false}));
}

TEST_F(Check, ReplyWithoutOption82IsRefused) {
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

TEST_F(Check, EachByteOfTheCircuitIdIsCompared) {
    for (std::size_t i = 2; i < 8; ++i) {
        remember();
        bytes content = join({circuit_id({}), remote_id({})});
        content[i] ^= 0x40;
        EXPECT_EQ(check(content), (checked{0, bad_circuit, {OUTCOME_CIRCUIT_ID}, true})) << i;
    }
}

TEST_F(Check, EachByteOfTheRemoteIdIsCompared) {
    for (std::size_t i = 10; i < 18; ++i) {
        remember();
        bytes content = join({circuit_id({}), remote_id({})});
        content[i] ^= 0x40;
        // The circuit id matched, so the transaction is finished although the reply is refused.
        EXPECT_EQ(check(content), (checked{0, bad_remote, {OUTCOME_REMOTE_ID}, false})) << i;
    }
}

TEST_F(Check, ModuleAndPortAreCutToOneByte) {
    packet::remember(packet::reply_message({}), 0x102, 0xFFFFFF01);
    EXPECT_EQ(check(join({circuit_id({.module = 2, .port = 1}), remote_id({})})), (checked{1, accepted, {}, false}));
}

TEST_F(Check, BothBytesOfTheVlanAreCompared) {
    for (const std::uint16_t vlan : std::vector<std::uint16_t>{3841, 3840, 1, 257, 1793, 3585}) {
        remember();
        const bytes content = join({circuit_id({.vlan = vlan}), remote_id({})});
        EXPECT_EQ(check(content, {.vlan = 3841}).result, vlan == 3841 ? 1 : 0) << vlan;
    }
}

TEST_F(Check, VlanIsThatOfAVlansNameOrWhatThePlatformSays) {
    iface relay = packet::record();
    std::strcpy(relay.name, "vlan12");
    EXPECT_EQ(ravo_vlan_id_of(&relay), 12);
    std::strcpy(relay.name, "port12");
    EXPECT_EQ(ravo_vlan_id_of(&relay), static_cast<std::uint16_t>(0 - 1024))
        << "a name that the platform does not know";
}

TEST_F(Check, ClientWithoutATransactionIsNamedByItsWholeAddress) {
    fake::forget();
    message msg = packet::reply_message({type(2), opt(82, join({circuit_id({}), remote_id({})})), packet::end()});
    msg.chaddr = hex("01 23 45 67 89 ab");
    held_message held(encode(msg));
    const iface relay = packet::record();
    EXPECT_EQ(ravo_option_check_reply(&relay, held.first_option() + 5, held.data()), 0);
    EXPECT_EQ(fake::traces(), check_lines("Can't find option 82 circuit id DB for client 01:23:45:67:89:AB,xid=" +
                                              packet::traced_number("A1B2C3D4", true) + " drop\n",
                                          103));
}

TEST_F(Check, ReplyWithACircuitIdOnlyPasses) {
    remember();
    EXPECT_EQ(check(circuit_id({})), (checked{1, accepted, {}, false}));
}

// The comparison has the length of the reply's own sub-option.
TEST_F(Check, ShorterCircuitIdIsComparedAsFarAsItGoes) {
    for (std::uint8_t length = 0; length <= 6; ++length) {
        remember();
        const bytes content = join({{1, length}, packet::part_of(circuit_id({}), 2, length), remote_id({})});
        EXPECT_EQ(check(content), (checked{1, accepted, {}, false})) << int{length};
    }
}

TEST_F(Check, LongerCircuitIdGoesOnAgainstZeros) {
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

TEST_F(Check, LongerRemoteIdGoesOnAgainstZeros) {
    bytes value = packet::part_of(remote_id({}), 2, 8);
    value.resize(12);
    remember();
    EXPECT_EQ(check(join({circuit_id({}), {2, 12}, value})), (checked{1, accepted, {}, false}));
    remember();
    value[9] = 1;
    EXPECT_EQ(check(join({circuit_id({}), {2, 12}, value})), (checked{0, bad_remote, {OUTCOME_REMOTE_ID}, false}));
}

TEST_F(Check, NeitherSubOptionWhereItBelongsPasses) {
    EXPECT_EQ(check(hex("09 02 aa bb 05 01 cc")), (checked{1, accepted, {}, false}));
}

TEST_F(Check, RemoteIdFirstIsNotLookedAt) {
    EXPECT_EQ(check(join({remote_id({.mac = hex("aa aa aa aa aa aa")})})), (checked{1, accepted, {}, false}));
}

TEST_F(Check, RemoteIdBehindAnotherFirstSubOptionIsChecked) {
    EXPECT_EQ(check(join({hex("09 02 aa bb"), remote_id({})})), (checked{1, accepted, {}, false}));
    EXPECT_EQ(check(join({hex("09 02 aa bb"), remote_id({.mac = hex("00 00 5e 00 53 77")})})),
              (checked{0, bad_remote, {OUTCOME_REMOTE_ID}, false}));
}

TEST_F(Check, RemoteIdThirdIsNotLookedAt) {
    remember();
    EXPECT_EQ(check(join({circuit_id({}), hex("06 01 aa"), remote_id({.mac = hex("aa aa aa aa aa aa")})})),
              (checked{1, accepted, {}, false}));
}

// ---- Hostile sub-options: whatever they claim, nothing outside the buffer is read ----

// Option 82 stands with its last byte at the end of a message that fills the buffer.
TEST_F(Check, EveryClaimedLengthAtTheEndOfTheBuffer) {
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
TEST_F(Check, Option82AtTheVeryEndOfALargeReply) {
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
