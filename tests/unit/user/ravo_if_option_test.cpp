// SPDX-License-Identifier: Apache-2.0
// Option 82 of requests: written, removed, replaced, found; and options 60 and 61.
#include "ravo_if_option.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "packet_relay.h"

namespace {

using packet::agent_info;
using packet::bytes;
using packet::held_message;
using packet::hex;
using packet::join;
using packet::opt;
using packet::option82;
using packet::text;
using packet::type;

constexpr std::uint32_t port = packet::port_2_1;

class Option : public packet::relay_test {};

// A message with these options behind its cookie.
held_message with_options(const bytes &options) {
    return held_message(join({bytes(236, 0), packet::cookie, options}));
}

// What fillOptions makes of options: the new length and the bytes through it.
struct filled {
    std::uint32_t length;
    bytes options;
};

filled fill(const bytes &options, int mode, std::uint32_t port_ifindex = port) {
    held_message held = with_options(options);
    const iface relay = packet::record();
    const std::uint32_t length = fillOptions(&relay, held.first_option(), mode, /*reserved=*/77, port_ifindex);
    return {length, {held.first_option(), held.first_option() + std::min<std::uint32_t>(length, 784)}};
}

// ---- What is written ----

TEST_F(Option, AddedOptionIsThese20BytesAndAnEndOption) {
    held_message held = with_options(hex("35 01 01 ff"));
    const iface relay = packet::record();
    EXPECT_EQ(addAgentOption(&relay, held.first_option() + 3, 4, 77, port), 24U);
    EXPECT_BYTES(hex("35 01 01"
                     "52 12              # option 82, 18 bytes\n"
                     "01 06 00 04 64 00  # circuit id: type 0, VLAN 100 low byte first\n"
                     "02 01              # module 2, port 1\n"
                     "02 08 00 06        # remote id: type 0, 6 bytes\n"
                     "00 00 5e 00 53 01  # hardware address\n"
                     "ff 00 00"),
                 bytes(held.first_option(), held.first_option() + 26));
}

TEST_F(Option, Vlan100AndPort5185GiveTheseCircuitIdBytes) {
    const filled result = fill(hex("35 01 01 ff"), RAVO_FILL_ADD, 5185);
    EXPECT_BYTES(hex("01 06 00 04 64 00 02 01"), packet::part_of(result.options, 5, 8));
}

TEST_F(Option, VlanIdStandsLowByteFirst) {
    held_message held = with_options(hex("ff"));
    const iface relay = packet::record({.vlan = 4094});
    (void)addAgentOption(&relay, held.first_option(), 1, 0, port);
    EXPECT_BYTES(option82({.vlan = 4094}), bytes(held.first_option(), held.first_option() + 20));
    EXPECT_EQ(held.first_option()[6], 0xFE);
    EXPECT_EQ(held.first_option()[7], 0x0F);
}

TEST_F(Option, VlanIdComesFromTheNameNotFromTheRecordsNumber) {
    iface relay = packet::record({.vlan = 100});
    relay.ifindex = 1024 + 7;
    EXPECT_EQ(ravo_vlan_id_of(&relay), 100);
}

TEST_F(Option, IngressPort0GivesModule0AndPort0) {
    EXPECT_BYTES(join({type(1), option82({.module = 0, .port = 0}), {255}}),
                 fill(hex("35 01 01 ff"), RAVO_FILL_ADD, 0).options);
}

TEST_F(Option, OnlySixBytesOfTheHardwareAddressAreWritten) {
    held_message held = with_options(hex("ff"));
    iface relay = packet::record();
    for (std::size_t i = 0; i < 16; ++i) relay.if_mac[i] = static_cast<std::uint8_t>(0xA0 + i);
    relay.if_maclen = 16;
    (void)addAgentOption(&relay, held.first_option(), 1, 0, port);
    EXPECT_BYTES(join({option82({.mac = hex("a0 a1 a2 a3 a4 a5")}), {255, 0, 0}}),
                 bytes(held.first_option(), held.first_option() + 23));
}

TEST_F(Option, AddingTracesSixtyBytesFromTheDataOn) {
    const bytes behind = hex("99 98 97 96");
    held_message held = with_options(join({hex("35 01 01 ff"), packet::pad(21), behind}));
    const iface relay = packet::record();
    (void)addAgentOption(&relay, held.first_option() + 3, 4, 0, port);
    // The dump is taken before the end option is written behind the new option.
    const bytes shown = join({packet::part_of(option82(), 2, 18), packet::pad(2), behind});
    EXPECT_EQ(fake::traces(), packet::dump_lines(shown));
}

TEST_F(Option, AddingAtTheEndOfTheBufferStaysInside) {
    message_buffer buffer;
    const iface relay = packet::record();
    (void)addAgentOption(&relay, buffer.data() + 1000, 300, 0, port);
    EXPECT_BYTES(join({option82(), {255}, {0, 0, 0}}), bytes(buffer.data() + 1000, buffer.data() + 1024));
}

// ---- Room ----

bytes chain_of(std::uint32_t length) {
    bytes chain = hex("35 01 01");
    while (chain.size() + 1 + 2 + 255 <= length) chain = join({chain, opt(12, bytes(255, 'x'))});
    const std::size_t missing = length - 1 - chain.size();
    if (missing == 1) chain.push_back(0);
    if (missing > 1) chain = join({chain, opt(12, bytes(missing - 2, 'y'))});
    chain.push_back(255);
    return chain;
}

TEST_F(Option, LengthUpTo307LeavesRoom) {
    const bytes chain = chain_of(307);
    ASSERT_EQ(chain.size(), 307U);
    const filled result = fill(chain, RAVO_FILL_ADD);
    EXPECT_EQ(result.length, 327U);
    EXPECT_BYTES(join({packet::part_of(chain, 0, 306), option82(), {255}}), result.options);
}

TEST_F(Option, LengthFrom308LeavesNone) {
    for (const std::uint32_t length : {308U, 309U, 500U, 700U}) {
        fake::forget();
        const bytes chain = chain_of(length);
        ASSERT_EQ(chain.size(), length);
        const filled result = fill(chain, RAVO_FILL_ADD);
        EXPECT_EQ(result.length, length);
        EXPECT_BYTES(chain, result.options);
        const std::vector<fake::line> expected = {
            {101, "addAgentOption (#): return opt82 len " + std::to_string(length) + "\n"}};
        EXPECT_EQ(fake::traces(), expected);
    }
}

TEST_F(Option, AgentIdOf21CharactersIsTheLongest) {
    held_message held = with_options(hex("ff"));
    iface relay = packet::record();
    std::strcpy(relay.aid, "123456789012345678901");
    EXPECT_EQ(addAgentOption(&relay, held.first_option(), 1, 0, port), 21U);
    std::strcpy(relay.aid, "1234567890123456789012");
    EXPECT_DEATH(
        (void)addAgentOption(&relay, held.first_option(), 1, 0, port),
        "user/src/ravo_if:[0-9]+: addAgentOption: Assertion 'strlen\\(iface->aid\\)<=\\(16\\+4\\)\\+1' failed");
}

// ---- fillOptions, mode by mode ----

TEST_F(Option, Mode0LeavesTheOptions) {
    for (const bytes &options : {hex("35 01 01 ff"), join({type(1), option82(), {255}})}) {
        const filled result = fill(options, RAVO_FILL_NONE);
        EXPECT_EQ(result.length, options.size());
        EXPECT_BYTES(options, result.options);
    }
    EXPECT_EQ(fake::traces(), std::vector<fake::line>{});
}

TEST_F(Option, Mode1RemovesOption82) {
    const filled result = fill(join({type(1), option82(), opt(12, text("pc")), {255}}), RAVO_FILL_REMOVE);
    EXPECT_EQ(result.length, 8U);
    EXPECT_BYTES(join({type(1), opt(12, text("pc")), {255}}), result.options);
}

TEST_F(Option, Mode1WithoutOption82LeavesTheOptions) {
    const bytes options = join({type(1), opt(12, text("pc")), {255}});
    EXPECT_BYTES(options, fill(options, RAVO_FILL_REMOVE).options);
}

TEST_F(Option, Mode2AddsWhereTheEndOptionStood) {
    const filled result = fill(hex("35 01 01 ff"), RAVO_FILL_ADD);
    EXPECT_EQ(result.length, 24U);
    EXPECT_BYTES(join({type(1), option82(), {255}}), result.options);
}

TEST_F(Option, Mode2KeepsAnOption82ThatBeginsWithACircuitId) {
    const bytes options = join({type(1), opt(82, hex("01 02 aa bb")), {255}});
    const filled result = fill(options, RAVO_FILL_ADD);
    EXPECT_EQ(result.length, options.size());
    EXPECT_BYTES(options, result.options);
}

TEST_F(Option, Mode2AddsASecondOption82BesideOneThatBeginsWithARemoteId) {
    const bytes other = opt(82, hex("02 02 aa bb"));
    EXPECT_BYTES(join({type(1), other, option82(), {255}}), fill(join({type(1), other, {255}}), RAVO_FILL_ADD).options);
}

TEST_F(Option, Mode3ReplacesOption82) {
    const filled result = fill(join({type(1), opt(82, hex("01 02 aa bb")), {255}}), RAVO_FILL_REPLACE);
    EXPECT_EQ(result.length, 24U);
    EXPECT_BYTES(join({type(1), option82(), {255}}), result.options);
}

TEST_F(Option, Mode3AddsWhenThereIsNone) {
    EXPECT_BYTES(join({type(1), option82(), {255}}), fill(hex("35 01 01 ff"), RAVO_FILL_REPLACE).options);
}

TEST_F(Option, Mode3CutsOffWhatStoodBehind) {
    const filled result = fill(join({type(1), option82({.vlan = 7}), opt(12, text("pc")), {255}}), RAVO_FILL_REPLACE);
    EXPECT_EQ(result.length, 3U + 20 + 4 + 1) << "old length, less the old option, and 20";
    EXPECT_BYTES(join({type(1), option82(), {255}}), packet::part_of(result.options, 0, 24));
}

TEST_F(Option, Mode3WithoutRoomLeavesTheOptions) {
    const bytes options = packet::part_of(chain_of(314), 0, 313);
    const bytes whole = join({options, opt(82, hex("01 02 aa bb")), {255}});
    const filled result = fill(whole, RAVO_FILL_REPLACE);
    EXPECT_EQ(result.length, whole.size());
    EXPECT_BYTES(whole, result.options);
}

TEST_F(Option, LastOption82IsTheOneThatCounts) {
    const bytes first = opt(82, hex("01 01 aa"));
    const bytes second = opt(82, hex("01 01 bb"));
    EXPECT_BYTES(join({type(1), first, {255}}), fill(join({type(1), first, second, {255}}), RAVO_FILL_REMOVE).options);
    EXPECT_BYTES(join({type(1), first, option82(), {255}}),
                 fill(join({type(1), first, second, {255}}), RAVO_FILL_REPLACE).options);
}

TEST_F(Option, AnyOtherModeAborts) {
    EXPECT_DEATH(fill(hex("35 01 01 ff"), 4), "user/src/ravo_if:[0-9]+: fillOptions: Assertion 'false' failed");
    EXPECT_DEATH(fill(hex("35 01 01 ff"), -1), "user/src/ravo_if:[0-9]+: fillOptions: Assertion 'false' failed");
}

TEST_F(Option, AddingAndRemovingGivesTheSameBytes) {
    for (std::uint32_t length = 4; length <= 307; ++length) {
        const bytes chain = chain_of(length);
        const bytes added = fill(chain, RAVO_FILL_ADD).options;
        ASSERT_EQ(added.size(), length + 20);
        EXPECT_BYTES(chain, fill(added, RAVO_FILL_REMOVE).options);
    }
}

// ---- removeAgentOption and replaceAgentOption by themselves ----

TEST_F(Option, OptionAsLargeAsTheWholeIsNotRemoved) {
    held_message held = with_options(hex("52 04 01 00 00 00 ff"));
    const bytes before = held.copy(300);
    EXPECT_EQ(removeAgentOption(held.first_option(), held.first_option() + 6, 6), 6U);
    EXPECT_BYTES(before, held.copy(300));
    const std::vector<fake::line> expected = {{104, "removeAgentOption (#): Failed assertion 'opt_len < len'\n"}};
    EXPECT_EQ(fake::traces(), expected);
}

TEST_F(Option, RemovingNeedsOneByteMoreThanTheOption) {
    held_message held = with_options(hex("52 04 01 00 00 00 ff"));
    EXPECT_EQ(removeAgentOption(held.first_option(), held.first_option() + 6, 7), 1U);
    EXPECT_EQ(held.first_option()[0], 255);
}

TEST_F(Option, ReplacingNothingAborts) {
    const iface relay = packet::record();
    EXPECT_DEATH((void)replaceAgentOption(&relay, nullptr, nullptr, 4, 0, port),
                 "user/src/ravo_if:[0-9]+: replaceAgentOption: Assertion 'relay_opt!=0' failed");
}

// ---- ravo_find_agent_option ----

struct found_option {
    int result;
    std::ptrdiff_t at;  // of the first sub-option from the first option on, -1: not told
    int type;
    std::vector<fake::line> lines;

    bool operator==(const found_option &) const = default;
};

void PrintTo(const found_option &value, std::ostream *out) {
    *out << value.result << " at " << value.at << " type " << value.type << ' ' << testing::PrintToString(value.lines);
}

found_option find(const bytes &options) {
    fake::forget();
    held_message held = with_options(options);
    std::uint8_t *relay = nullptr;
    std::uint8_t message_type = 0;
    const int result = ravo_find_agent_option(held.first_option(), &relay, &message_type);
    return {result, relay == nullptr ? -1 : relay - held.first_option(), message_type, fake::traces()};
}

std::vector<fake::line> found_line(int code, int length) {
    return {{101, "ravo_find_agent_option (#): found rcv pkt with 82opt [0] " + std::to_string(code) + " [1] " +
                      std::to_string(length) + "  \n"}};
}

TEST_F(Option, FindsOption82AndTheMessageTypeBefore) {
    EXPECT_EQ(find(join({type(3), option82(), {255}})), (found_option{0, 5, 3, found_line(1, 6)}));
}

TEST_F(Option, MessageTypeBehindOption82IsNotSeen) {
    EXPECT_EQ(find(join({option82(), type(3), {255}})), (found_option{0, 2, 0, found_line(1, 6)}));
}

TEST_F(Option, Option82ThatBeginsOtherwiseIsMetWithoutAPointer) {
    EXPECT_EQ(find(join({type(3), opt(82, hex("02 02 aa bb")), {255}})), (found_option{0, -1, 3, {}}));
}

TEST_F(Option, EmptyOption82IsMet) {
    EXPECT_EQ(find(join({type(3), hex("52 00"), {255}})), (found_option{0, -1, 3, {}}));
}

TEST_F(Option, NoOption82BeforeTheEnd) {
    EXPECT_EQ(find(join({type(5), {255}})), (found_option{1, -1, 5, {}}));
    EXPECT_EQ(find(join({type(5), {255}, option82()})), (found_option{1, -1, 5, {}}));
    EXPECT_EQ(find({}), (found_option{1, -1, 0, {}}));
}

TEST_F(Option, FirstOption82IsTheOneFound) {
    EXPECT_EQ(find(join({type(1), opt(82, hex("01 01 aa")), option82(), {255}})),
              (found_option{0, 5, 1, found_line(1, 1)}));
}

// ---- ravo_find_option60_61 ----

struct identified {
    bytes client_id;
    bytes vendor;
    std::uint32_t found60 = 0;
    std::uint32_t found61 = 0;
};

identified identify(const bytes &options) {
    held_message held = with_options(options);
    std::uint8_t client_id[129] = {};
    char vendor[65] = {};
    identified result;
    EXPECT_EQ(ravo_find_option60_61(held.first_option(), client_id, vendor, &result.found60, &result.found61), 0);
    result.client_id.assign(client_id, client_id + sizeof client_id);
    result.vendor.assign(vendor, vendor + sizeof vendor);
    return result;
}

bytes filled_up(bytes data, std::size_t size) {
    data.resize(size);
    return data;
}

TEST_F(Option, BothIdentifiersAreCopiedAndTraced) {
    const identified got =
        identify(join({type(1), opt(61, hex("01 02 c1 1e 00 00 01")), opt(60, text("printer")), {255}}));
    EXPECT_EQ(got.found60, 1U);
    EXPECT_EQ(got.found61, 1U);
    EXPECT_BYTES(filled_up(hex("01 02 c1 1e 00 00 01"), 129), got.client_id);
    EXPECT_BYTES(filled_up(text("printer"), 65), got.vendor);
    const std::vector<fake::line> expected = {
        {101, "ravo_find_option60_61 (#): found rcv pkt with option61 0102C11E000001\n"},
        {101, "ravo_find_option60_61 (#): found rcv pkt with option60 printer\n"}};
    EXPECT_EQ(fake::traces(), expected);
}

TEST_F(Option, WithoutEitherIdentifierNothingIsTouched) {
    const identified got = identify(join({type(1), opt(12, text("pc")), {255}}));
    EXPECT_EQ(got.found60, 0U);
    EXPECT_EQ(got.found61, 0U);
    EXPECT_BYTES(bytes(129, 0), got.client_id);
    EXPECT_BYTES(bytes(65, 0), got.vendor);
    EXPECT_EQ(fake::traces(), std::vector<fake::line>{});
}

TEST_F(Option, VendorClassOf64BytesFillsTheBuffer) {
    const identified got = identify(join({opt(60, bytes(64, 'v')), {255}}));
    EXPECT_BYTES(filled_up(bytes(64, 'v'), 65), got.vendor);
}

TEST_F(Option, VendorClassIsCutTo64Bytes) {
    EXPECT_BYTES(filled_up(bytes(64, 'v'), 65), identify(join({opt(60, bytes(255, 'v')), {255}})).vendor);
}

TEST_F(Option, ClientIdentifierOf200BytesIsCutTo128) {
    bytes data(200);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<std::uint8_t>(i + 1);
    EXPECT_BYTES(filled_up(packet::part_of(data, 0, 128), 129), identify(join({opt(61, data), {255}})).client_id);
}

TEST_F(Option, LaterOccurrenceOverwritesFromTheStart) {
    const identified got = identify(
        join({opt(60, text("abcdef")), opt(61, hex("01 02 03 04")), opt(60, text("XY")), opt(61, hex("09")), {255}}));
    EXPECT_BYTES(filled_up(text("XYcdef"), 65), got.vendor);
    EXPECT_BYTES(filled_up(hex("09 02 03 04"), 129), got.client_id);
}

TEST_F(Option, EmptyIdentifiersAreFound) {
    const identified got = identify(hex("3c 00 3d 00 ff"));
    EXPECT_EQ(got.found60, 1U);
    EXPECT_EQ(got.found61, 1U);
    EXPECT_BYTES(bytes(65, 0), got.vendor);
}

TEST_F(Option, IdentifiersBehindTheEndOptionAreNotSeen) {
    const identified got = identify(join({{255}, opt(60, text("x")), opt(61, text("y"))}));
    EXPECT_EQ(got.found60, 0U);
    EXPECT_EQ(got.found61, 0U);
}

// ---- Hostile chains ----

// Whatever a length byte claims and wherever the chain is cut, no walker leaves the buffer.
TEST_F(Option, EveryClaimedLengthAtTheEndOfTheBuffer) {
    for (const std::uint8_t code : bytes{52, 53, 60, 61, 82}) {
        for (unsigned claimed = 0; claimed < 256; ++claimed) {
            for (const std::size_t behind : {std::size_t{0}, std::size_t{1}, std::size_t{2}, std::size_t{30}}) {
                bytes options(784, 0);
                options[783 - behind] = code;
                if (behind > 0) options[784 - behind] = static_cast<std::uint8_t>(claimed);
                if (behind > 1) options[785 - behind] = 1;
                held_message held = with_options(options);
                std::uint8_t *relay = nullptr;
                std::uint8_t message_type = 0;
                std::uint8_t client_id[129] = {};
                char vendor[65] = {};
                std::uint32_t found60 = 0;
                std::uint32_t found61 = 0;
                const int met = ravo_find_agent_option(held.first_option(), &relay, &message_type);
                EXPECT_EQ(met, code == 82 ? 0 : 1);
                ravo_find_option60_61(held.first_option(), client_id, vendor, &found60, &found61);
                EXPECT_EQ(found60 + found61, code == 60 || code == 61 ? 1U : 0U);
                EXPECT_EQ(vendor[64], 0);
                EXPECT_EQ(client_id[128], 0);
            }
        }
    }
}

TEST_F(Option, FillingEveryTruncatedChainStaysInTheBuffer) {
    const iface relay = packet::record();
    const bytes whole = join({type(1), opt(60, text("abc")), option82({.vlan = 7}), opt(12, text("pc")), {255}});
    for (const int mode : {RAVO_FILL_NONE, RAVO_FILL_REMOVE, RAVO_FILL_ADD, RAVO_FILL_REPLACE}) {
        for (std::size_t size = 0; size <= whole.size(); ++size) {
            held_message held = with_options(packet::part_of(whole, 0, size));
            const std::uint32_t length = fillOptions(&relay, held.first_option(), mode, 0, port);
            EXPECT_GE(length, 1U);
            EXPECT_LE(length, 784U + 257 + 20);
        }
    }
}

}  // namespace
