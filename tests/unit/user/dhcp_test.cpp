// SPDX-License-Identifier: Apache-2.0
// The DHCP message: header and option validation, and the option walkers.
#include "dhcp.h"

#include <gtest/gtest.h>

#include "guarded_bytes.h"
#include "packet_relay.h"

namespace {

using packet::bytes;
using packet::held_message;
using packet::hex;
using packet::message;

class Dhcp : public packet::relay_test {};

struct verdict {
    int valid;
    std::vector<fake::line> lines;
    std::vector<relay_outcome> outcomes;

    bool operator==(const verdict &) const = default;
};

void PrintTo(const verdict &value, std::ostream *out) {
    *out << value.valid << ' ' << testing::PrintToString(value.lines) << ' ' << testing::PrintToString(value.outcomes);
}

verdict header(const message &msg) {
    fake::forget();
    held_message held(encode(msg));
    const int valid = isValidHeader(held.data());
    return {valid, fake::traces(), fake::outcomes};
}

verdict refused(const std::string &reason, relay_outcome outcome) {
    return {0, {{101, "isValidHeader (#): reason=" + reason + "\n"}}, {outcome}};
}

const verdict accepted = {1, {}, {}};

message with_flags(std::uint16_t flags) {
    message msg;
    msg.flags = flags;
    return msg;
}

message with_hops(std::uint8_t hops) {
    message msg;
    msg.hops = hops;
    return msg;
}

message with_op(std::uint8_t op) {
    message msg;
    msg.op = op;
    return msg;
}

int options_valid(const bytes &area) {
    packet::guarded_bytes exact(area);  // a read outside it is seen
    return isValidOptions(exact.data(), static_cast<std::int32_t>(area.size()));
}

// ---- Layout ----

TEST_F(Dhcp, HeaderFieldsStandAtTheirOffsets) {
    message msg;
    msg.op = 2;
    msg.htype = 6;
    msg.hlen = 7;
    msg.hops = 3;
    msg.secs = 0x0102;
    msg.flags = 0x8000;
    msg.ciaddr = "10.0.0.1";
    msg.yiaddr = "10.0.0.2";
    msg.siaddr = "10.0.0.3";
    msg.giaddr = "10.0.0.4";
    held_message held(encode(msg));
    dhcp_header read;
    std::memcpy(&read, held.data(), sizeof read);
    EXPECT_EQ(read.op, 2);
    EXPECT_EQ(read.htype, 6);
    EXPECT_EQ(read.hlen, 7);
    EXPECT_EQ(read.hops, 3);
    EXPECT_EQ(read.xid, htonl(0xA1B2C3D4));
    EXPECT_EQ(read.secs, htons(0x0102));
    EXPECT_EQ(read.flags, htons(0x8000));
    EXPECT_EQ(read.ciaddr, fake::address("10.0.0.1"));
    EXPECT_EQ(read.yiaddr, fake::address("10.0.0.2"));
    EXPECT_EQ(read.siaddr, fake::address("10.0.0.3"));
    EXPECT_EQ(read.giaddr, fake::address("10.0.0.4"));
    EXPECT_EQ(std::memcmp(read.chaddr, packet::client_mac.data(), 6), 0);
    EXPECT_EQ(dhcp_op(held.data()), 2);
    EXPECT_EQ(dhcp_xid(held.data()), htonl(0xA1B2C3D4));
    EXPECT_EQ(dhcp_flags(held.data()), htons(0x8000));
    EXPECT_EQ(dhcp_giaddr(held.data()), fake::address("10.0.0.4"));
    EXPECT_EQ(dhcp_load32(held.data(), 12), fake::address("10.0.0.1"));
    EXPECT_EQ(offsetof(dhcp_header, sname), 44U);
    EXPECT_EQ(offsetof(dhcp_header, file), 108U);
    EXPECT_EQ(sizeof(dhcp_header), 236U);
}

// ---- isValidHeader ----

TEST_F(Dhcp, FlagsAreZeroOrTheBroadcastBitAlone) {
    EXPECT_EQ(header(with_flags(0x0000)), accepted);
    EXPECT_EQ(header(with_flags(0x8000)), accepted);
    for (const std::uint16_t flags : std::vector<std::uint16_t>{0x8001, 0x0001, 0x0080, 0x4000, 0xC000, 0xFFFF})
        EXPECT_EQ(header(with_flags(flags)), refused("Invalid flags field", OUTCOME_BAD_FLAGS)) << flags;
}

TEST_F(Dhcp, HopsUpToTheConfiguredLimitPass) {
    packet::set({.hops = 4});
    EXPECT_EQ(header(with_hops(4)), accepted);
    EXPECT_EQ(header(with_hops(5)), refused("Looping detected", OUTCOME_HOP_LIMIT));
    packet::set({.hops = 16});
    EXPECT_EQ(header(with_hops(16)), accepted);
    EXPECT_EQ(header(with_hops(17)), refused("Looping detected", OUTCOME_HOP_LIMIT));
    EXPECT_EQ(header(with_hops(255)), refused("Looping detected", OUTCOME_HOP_LIMIT));
}

TEST_F(Dhcp, HopsAbove16NeverPassWhateverTheLimit) {
    packet::set({.hops = 200});
    EXPECT_EQ(header(with_hops(16)), accepted);
    EXPECT_EQ(header(with_hops(17)), refused("Looping detected", OUTCOME_HOP_LIMIT));
}

TEST_F(Dhcp, HopLimitIsComparedAsASignedNumber) {
    packet::set({.hops = 0xFFFFFFFF});
    EXPECT_EQ(header(with_hops(0)), refused("Looping detected", OUTCOME_HOP_LIMIT));
}

TEST_F(Dhcp, OnlyRequestsAndRepliesAreOperations) {
    EXPECT_EQ(header(with_op(1)), accepted);
    EXPECT_EQ(header(with_op(2)), accepted);
    for (const std::uint8_t op : bytes{0, 3, 4, 128, 255})
        EXPECT_EQ(header(with_op(op)), refused("Unknown operation", OUTCOME_UNKNOWN_OPERATION)) << int{op};
}

TEST_F(Dhcp, OnlyTheFirstFaultIsNamed) {
    message all_wrong;
    all_wrong.flags = 1;
    all_wrong.hops = 17;
    all_wrong.op = 9;
    EXPECT_EQ(header(all_wrong), refused("Invalid flags field", OUTCOME_BAD_FLAGS));
    all_wrong.flags = 0;
    EXPECT_EQ(header(all_wrong), refused("Looping detected", OUTCOME_HOP_LIMIT));
    all_wrong.hops = 0;
    EXPECT_EQ(header(all_wrong), refused("Unknown operation", OUTCOME_UNKNOWN_OPERATION));
}

// ---- isValidOptions ----

TEST_F(Dhcp, NoOptionAreaIsValid) {
    EXPECT_EQ(isValidOptions(packet::cookie.data(), 0), 1);
}

TEST_F(Dhcp, NegativeLengthIsInvalid) {
    for (const std::int32_t length : {-1, -2, -236, -260, INT32_MIN})
        EXPECT_EQ(isValidOptions(packet::cookie.data(), length), 0) << length;
}

TEST_F(Dhcp, CookieAndEndAreTheSmallestArea) {
    EXPECT_EQ(options_valid(hex("63 82 53 63 ff")), 1);
    EXPECT_EQ(options_valid(hex("63 82 53 63")), 0);
    EXPECT_EQ(options_valid(hex("63 82 53")), 0);
    EXPECT_EQ(options_valid(hex("63")), 0);
}

TEST_F(Dhcp, EachByteOfTheCookieCounts) {
    for (std::size_t i = 0; i < 4; ++i) {
        bytes area = hex("63 82 53 63 35 01 01 ff");
        area[i] ^= 1;
        EXPECT_EQ(options_valid(area), 0) << i;
    }
}

TEST_F(Dhcp, EndOptionMustBeMet) {
    EXPECT_EQ(options_valid(hex("63 82 53 63 35 01 01")), 0);
    EXPECT_EQ(options_valid(hex("63 82 53 63 00")), 0);
    EXPECT_EQ(options_valid(hex("63 82 53 63 35 01 ff")), 0) << "the 255 is the option's data";
}

TEST_F(Dhcp, LastOptionMustNotClaimMoreThanRemains) {
    EXPECT_EQ(options_valid(hex("63 82 53 63 35 01 01 ff")), 1);
    EXPECT_EQ(options_valid(hex("63 82 53 63 35 02 01 ff")), 0) << "swallows the end option";
    EXPECT_EQ(options_valid(hex("63 82 53 63 35 03 01 ff")), 0);
    EXPECT_EQ(options_valid(hex("63 82 53 63 ff 35")), 0) << "length byte outside";
    EXPECT_EQ(options_valid(hex("63 82 53 63 ff 35 00")), 1);
    EXPECT_EQ(options_valid(hex("63 82 53 63 ff 35 01")), 0);
}

TEST_F(Dhcp, PadsBehindTheEndOptionAreValid) {
    EXPECT_EQ(options_valid(packet::join({hex("63 82 53 63 35 01 01 ff"), packet::pad(60)})), 1);
}

TEST_F(Dhcp, WhatStandsBehindTheEndOptionIsWalkedAsOptions) {
    EXPECT_EQ(options_valid(hex("63 82 53 63 ff 0c 02 61 62")), 1);
    EXPECT_EQ(options_valid(hex("63 82 53 63 ff 0c 03 61 62")), 0);
}

// Truncated at every length, and with every length claimed: valid exactly when the chain fits, and nothing outside the
// area is read.
TEST_F(Dhcp, AreaTruncatedAtEveryLengthIsInvalid) {
    const bytes whole = hex("63 82 53 63 35 01 01 3c 03 61 62 63 52 04 01 02 00 00 ff");
    ASSERT_EQ(options_valid(whole), 1);
    for (std::size_t size = 1; size < whole.size(); ++size)
        EXPECT_EQ(options_valid(packet::part_of(whole, 0, size)), 0) << size;
}

TEST_F(Dhcp, AreaWithEveryClaimedLength) {
    const bytes whole = hex("63 82 53 63 3c 04 00 00 00 00 ff 00 00 00");
    for (unsigned claimed = 0; claimed < 256; ++claimed) {
        const bytes area = packet::with_byte(whole, 5, static_cast<std::uint8_t>(claimed));
        // Four data bytes or fewer leave the end option outside the option; more swallow it.
        EXPECT_EQ(options_valid(area), claimed <= 4 ? 1 : 0) << claimed;
    }
}

// ---- Walkers ----

TEST_F(Dhcp, OptionSizes) {
    const std::uint8_t pad[] = {0, 9};
    const std::uint8_t end[] = {255, 9};
    EXPECT_EQ(DHCP_optionSize(pad), 1U);
    EXPECT_EQ(DHCP_optionSize(end), 1U);
    for (unsigned code = 1; code < 255; ++code) {
        for (const unsigned length : {0U, 1U, 18U, 255U}) {
            const std::uint8_t option[] = {static_cast<std::uint8_t>(code), static_cast<std::uint8_t>(length)};
            EXPECT_EQ(DHCP_optionSize(option), length + 2) << code;
        }
    }
    const std::uint8_t option[] = {53, 1, 1, 255};
    EXPECT_EQ(DHCP_nextOption(option), option + 3);
    EXPECT_EQ(DHCP_nextOption(option + 3), option + 4);
}

TEST_F(Dhcp, ErasingAnOptionMovesTheRestUp) {
    bytes chain = hex("35 01 01 | 52 02 01 00 | 0c 01 61 | ff | ee ee");
    DHCP_eraseOption(&chain[3], &chain[10]);
    // The four bytes freed at the tail stay as they were.
    EXPECT_BYTES(hex("35 01 01 | 0c 01 61 ff | 0c 01 61 ff | ee ee"), chain);
}

TEST_F(Dhcp, ErasingTheLastOptionMovesOnlyTheEndOption) {
    bytes chain = hex("35 01 01 | 52 02 01 00 | ff");
    DHCP_eraseOption(&chain[3], &chain[7]);
    EXPECT_BYTES(hex("35 01 01 | ff | 02 01 00 ff"), chain);
}

TEST_F(Dhcp, ErasingAnOptionThatReachesBeyondTheEndDoesNothing) {
    bytes chain = hex("35 01 01 | 52 09 01 00 | ff | 00 00 00 00 00 00");
    const bytes before = chain;
    DHCP_eraseOption(&chain[3], &chain[7]);
    EXPECT_BYTES(before, chain);
}

TEST_F(Dhcp, ErasingTheEndOptionItselfDoesNothing) {
    bytes chain = hex("35 01 01 ff ee");
    const bytes before = chain;
    DHCP_eraseOption(&chain[3], &chain[3]);
    EXPECT_BYTES(before, chain);
}

TEST_F(Dhcp, ErasingBehindTheEndOptionAborts) {
    bytes chain = hex("35 01 01 ff 52 00");
    EXPECT_DEATH(DHCP_eraseOption(&chain[4], &chain[3]),
                 "user/h/dhcp:[0-9]+: DHCP_eraseOption: Assertion 'opt <= end_opt' failed");
}

// ---- DHCP_getMessageType ----

struct found_type {
    int result;
    int type;

    bool operator==(const found_type &) const = default;
};

void PrintTo(const found_type &value, std::ostream *out) {
    *out << value.result << " type " << value.type;
}

found_type message_type(const bytes &options) {
    held_message held(packet::join({bytes(236, 0), packet::cookie, options}));
    std::uint8_t type = 99;
    const int result = DHCP_getMessageType(held.first_option(), &type);
    return {result, type};
}

TEST_F(Dhcp, MessageTypeIsFoundAnywhereBeforeTheEnd) {
    EXPECT_EQ(message_type(hex("35 01 03 ff")), (found_type{0, 3}));
    EXPECT_EQ(message_type(hex("35 01 00 ff")), (found_type{0, 0}));
    EXPECT_EQ(message_type(hex("00 00 0c 01 61 35 01 08 ff")), (found_type{0, 8}));
    EXPECT_EQ(message_type(hex("52 02 01 00 35 01 05 ff")), (found_type{0, 5}));
    EXPECT_EQ(message_type(hex("35 01 03 35 01 04 ff")), (found_type{0, 3})) << "the first one counts";
    EXPECT_EQ(message_type(hex("35 01 c8 ff")), (found_type{0, 200}));
}

// deliberate: the byte behind the length is taken, also where that says that there is none.
TEST_F(Dhcp, MessageTypeOfAnEmptyOptionIsTheByteBehindIt) {
    EXPECT_EQ(message_type(hex("35 00 04 01 61 ff")), (found_type{0, 4}));
    EXPECT_EQ(message_type(hex("35 00 ff")), (found_type{0, 255}));
}

TEST_F(Dhcp, MessageTypeIsNotFoundBeforeTheEnd) {
    EXPECT_EQ(message_type(hex("ff")), (found_type{1, 99}));
    EXPECT_EQ(message_type(hex("0c 03 35 01 01 ff")), (found_type{1, 99})) << "data of another option";
}

// deliberate: the step behind the end option is taken, but what stands there is not looked at.
TEST_F(Dhcp, MessageTypeBehindTheEndOptionIsNotSeen) {
    EXPECT_EQ(message_type(hex("ff 35 01 01")), (found_type{1, 99}));
}

TEST_F(Dhcp, WalksWithoutAnEndOptionStopInTheSpareRoom) {
    EXPECT_EQ(message_type({}), (found_type{1, 99}));
    EXPECT_EQ(message_type(hex("0c 01 61")), (found_type{1, 99}));
    for (std::size_t size = 0; size <= 784; ++size) {
        bytes options(size, 0);
        if (size >= 2) {
            options[size - 2] = 12;
            options[size - 1] = 255;
        }
        EXPECT_EQ(message_type(options), (found_type{1, 99})) << size;
    }
}

TEST_F(Dhcp, MessageTypeAtTheVeryEndOfTheBufferReadsInsideIt) {
    bytes options(784, 0);
    options[783] = 53;  // length and data stand in the spare room
    EXPECT_EQ(message_type(options), (found_type{0, 255}));
}

// ---- Notes ----

// The notes as a row: type, type before option 82, option 82, last one with a circuit id, end.
using row = std::vector<std::int32_t>;

row row_of(const dhcp_notes &notes) {
    return {notes.type, notes.type_before_agent, notes.agent, notes.last_agent, notes.end};
}

bool identified_by(const bytes &options) {
    held_message held(packet::join({bytes(236, 0), packet::cookie, options}));
    return dhcp_note_options(held.first_option()).identified;
}

row notes_of(const bytes &options) {
    held_message held(packet::join({bytes(236, 0), packet::cookie, options}));
    return row_of(dhcp_note_options(held.first_option()));
}

TEST_F(Dhcp, NotesTellWhereEverythingStands) {
    EXPECT_EQ(notes_of(hex("ff")), (row{-1, -1, -1, -1, 0}));
    EXPECT_EQ(notes_of(hex("00 35 01 03 ff")), (row{3, 3, -1, -1, 4}));
    EXPECT_EQ(notes_of(hex("35 01 03 35 01 05 ff")), (row{3, 5, -1, -1, 6}))
        << "the first, and the last before option 82";
    EXPECT_EQ(notes_of(hex("35 01 00 35 01 05 ff")), (row{0, 5, -1, -1, 6})) << "also when the first is 0";
    EXPECT_EQ(notes_of(hex("52 03 01 01 07 35 01 05 ff")), (row{5, -1, 0, 0, 8}));
    EXPECT_EQ(notes_of(hex("35 01 03 52 03 02 01 07 ff")), (row{3, 3, 3, -1, 8})) << "no circuit id";
    EXPECT_EQ(notes_of(hex("52 03 02 01 07 52 03 01 01 07 52 03 01 01 08 ff")), (row{-1, -1, 0, 10, 15}));
    EXPECT_EQ(notes_of(hex("52 03 01 01 07 52 03 02 01 08 ff")), (row{-1, -1, 0, 0, 10}));
    EXPECT_EQ(notes_of(hex("ff 35 01 03 52 03 01 01 07 ff")), (row{-1, -1, -1, -1, 0})) << "behind the end";
    EXPECT_EQ(notes_of(hex("35 00 ff")), (row{255, 255, -1, -1, 2})) << "an empty type is the byte behind it";
    EXPECT_EQ(notes_of(hex("52 00 ff")), (row{-1, -1, 0, -1, 2}));
    EXPECT_EQ(notes_of(hex("52 00 01 01 07 ff")), (row{-1, -1, 0, 0, 5}));
}

TEST_F(Dhcp, NotesTellWhetherThereAreIdentifiers) {
    EXPECT_TRUE(identified_by(hex("35 01 03 3c 01 61 ff")));
    EXPECT_TRUE(identified_by(hex("3d 00 ff")));
    EXPECT_FALSE(identified_by(hex("35 01 3c 0c 01 3d ff 3c 01 61 3d 01 61 ff"))) << "data, and behind the end";
}

TEST_F(Dhcp, NotesOfAValidAreaAreThoseOfItsChain) {
    for (const bytes &options : {hex("35 01 03 52 03 01 01 07 ff"), hex("35 01 03 ff 00 00"), hex("ff 35 01 03"),
                                 hex("35 00 ff"), hex("52 00 ff"), hex("52 01 01 ff"), hex("3d 00 ff")}) {
        held_message held(packet::join({bytes(236, 0), packet::cookie, options}));
        dhcp_notes notes;
        const auto size = static_cast<std::int32_t>(options.size() + 4);
        ASSERT_EQ(dhcp_note_valid_options(held.options(), size, &notes), 1);
        EXPECT_EQ(row_of(notes), notes_of(options));
        EXPECT_EQ(notes.identified, identified_by(options));
    }
}

TEST_F(Dhcp, WithoutAnOptionAreaNothingIsNoted) {
    held_message held(packet::join({bytes(236, 0), packet::cookie, hex("35 01 03 ff")}));
    dhcp_notes notes;
    EXPECT_EQ(dhcp_note_valid_options(held.options(), 0, &notes), 1);
    EXPECT_EQ(row_of(notes), (row{-1, -1, -1, -1, -1}));
}

TEST_F(Dhcp, BufferIsZeroFollowedByEndOptions) {
    message_buffer buffer;
    buffer.bytes[5] = 7;
    buffer.bytes[1500] = 7;
    buffer.clear();
    for (std::size_t i = 0; i < 2048; ++i) ASSERT_EQ(buffer.bytes[i], i < 1024 ? 0 : 255) << i;
}

}  // namespace
