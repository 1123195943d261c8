// SPDX-License-Identifier: Apache-2.0
// Surface: an option area, given to the validation, to every option walker and to the rewriting of option 82. The
// input's first two bytes choose the ingress port, the rest is the area from the magic cookie on.
//
// Contract: the validation reads nothing outside the area, and it and every walker say what a second parser says that
// shares no code with them (naive_options.h), also where the area is not valid; the rewriting leaves the same bytes in
// the whole buffer as the second parser's. What is added to a valid area and taken out again leaves the same bytes up
// to the end option.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "channel/dhcp_view.h"
#include "naive_options.h"
#include "packet_relay.h"
#include "pieces.h"
#include "ravo_if_option.h"

namespace {

using packet::bytes;

void require(bool condition, const char *what) {
    if (condition) return;
    std::fprintf(stderr, "option_fuzz: %s\n", what);
    std::abort();
}

bool is_valid(const bytes &area) {
    const auto exact = std::make_unique<std::uint8_t[]>(area.size());
    std::copy(area.begin(), area.end(), exact.get());
    return isValidOptions(exact.get(), static_cast<std::int32_t>(area.size())) != 0;
}

// ---- The walkers ----

void check_type(packet::held_message &held, const naive::held &naive_one) {
    std::uint8_t type = 77;
    const auto expected = naive::message_type(naive_one);
    const bool found = DHCP_getMessageType(held.first_option(), &type) == 0;
    require(found == expected.has_value() && type == expected.value_or(77), "another message type");
}

void check_agent(packet::held_message &held, const naive::held &naive_one) {
    std::uint8_t type = 77;
    std::uint8_t *relay = nullptr;
    const naive::agent_found expected = naive::find_agent(naive_one);
    const bool found = ravo_find_agent_option(held.first_option(), &relay, &type) == 0;
    require(found == expected.present, "an option 82 that is not there, or is not found");
    require((relay == nullptr) == (expected.circuit == 0), "a circuit id that is not there, or is not found");
    require(relay == nullptr || relay == held.data() + expected.circuit, "option 82 elsewhere");
    require(type == (expected.typed ? expected.type : 77), "another message type before option 82");
}

void check_identifiers(const packet::held_message &held, const naive::held &naive_one) {
    std::uint8_t client_id[129] = {};
    char vendor[65] = {};
    std::uint32_t found60 = 0;
    std::uint32_t found61 = 0;
    const naive::identifiers expected = naive::identify(naive_one);
    ravo_find_option60_61(held.buffer.bytes + naive::first_option, client_id, vendor, &found60, &found61);
    require((found60 != 0) == expected.vendor_found && (found61 != 0) == expected.client_found, "other identifiers");
    require(std::equal(expected.vendor.begin(), expected.vendor.end(), reinterpret_cast<const std::uint8_t *>(vendor)),
            "another vendor class");
    require(std::equal(expected.client.begin(), expected.client.end(), client_id), "another client identifier");
    require(vendor[64] == 0 && client_id[128] == 0, "an identifier longer than its limit");
}

void check_notes(const packet::held_message &held, const naive::held &naive_one) {
    const dhcp_notes notes = dhcp_note_options(held.buffer.bytes + naive::first_option);
    const auto position = [](std::size_t place) { return static_cast<std::int32_t>(place - naive::first_option); };
    std::int32_t first = -1, last = -1;
    bool identified = false;
    for (const naive::option &each : naive::options_of(naive_one)) {
        if (each.code == naive::agent_code && first < 0) first = position(each.place);
        if (each.code == naive::agent_code && each.value == naive::circuit_id) last = position(each.place);
        identified = identified || each.code == naive::vendor_code || each.code == naive::client_code;
    }
    require(notes.agent == first && notes.last_agent == last, "option 82 noted elsewhere");
    require(notes.identified == identified, "identifiers noted otherwise");
    require(notes.end == position(naive::options_of(naive_one).back().place), "END noted elsewhere");
    const auto type = naive::message_type(naive_one);
    require(notes.type == (type ? int{*type} : -1), "another message type noted");
}

// What the guards read of a message; they look at no message that is not whole.
void check_view(const bytes &message, const naive::held &naive_one, bool valid) {
    const ravo::platform::dhcp_view view(message);
    require(view.is_plain_chain() == (valid && message.size() > naive::first_option), "the guards' chain");
    if (!view.is_plain_chain()) return;
    require(view.message_type() == naive::message_type(naive_one).value_or(0), "the guards' message type");
    const std::size_t agent = view.find_option(naive::agent_code);
    require((agent != 0) == naive::find_agent(naive_one).present, "the guards' option 82");
}

// ---- The rewriting ----

bytes fresh_option(std::uint32_t port) {
    packet::agent_info info;
    const auto number = static_cast<std::int32_t>(port);
    info.module = number <= 0 ? std::uint8_t{0} : static_cast<std::uint8_t>((number - 5120) / 64 + 1);
    info.port = number <= 0 ? std::uint8_t{0} : static_cast<std::uint8_t>((number - 5120) % 64);
    return packet::option82(info);
}

void check_filling(const bytes &message, std::uint32_t port) {
    const iface relay = packet::record();
    for (const int mode : {RAVO_FILL_NONE, RAVO_FILL_REMOVE, RAVO_FILL_ADD, RAVO_FILL_REPLACE}) {
        packet::held_message held(message);
        naive::held naive_one(message);
        const std::uint32_t length = fillOptions(&relay, held.first_option(), mode, 0, port);
        const std::size_t expected = naive::fill(naive_one, static_cast<naive::change>(mode), fresh_option(port));
        require(length == expected, "another length behind the rewriting");
        const bytes whole = naive_one.part(0, sizeof held.buffer.bytes);
        require(std::equal(whole.begin(), whole.end(), held.buffer.bytes), "other bytes behind the rewriting");
    }
}

void check_round_trip(const bytes &message, std::uint32_t port) {
    const iface relay = packet::record();
    packet::held_message held(message);
    const std::uint32_t before = fillOptions(&relay, held.first_option(), RAVO_FILL_NONE, 0, port);
    const bytes original(held.first_option(), held.first_option() + before);
    if (fillOptions(&relay, held.first_option(), RAVO_FILL_ADD, 0, port) != before + 20) return;
    require(isValidOptions(held.options(), static_cast<std::int32_t>(before + 24)) == 1, "no chain after adding");
    const std::uint32_t again = fillOptions(&relay, held.first_option(), RAVO_FILL_REMOVE, 0, port);
    require(again == before && std::equal(original.begin(), original.end(), held.first_option()),
            "added and removed is not the same");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size < 2) return 0;
    fake::print_from(104);
    fake::forget();
    const bytes area(data + 2, data + size);
    const bytes message = packet::part_of(packet::join({bytes(236, 0), area}), 0, 1000);
    const bool whole = message.size() == 236 + area.size();
    const bool valid = is_valid(area);
    packet::held_message held(message);
    const naive::held naive_one(message);
    if (whole)
        require(valid == naive::is_chain(naive_one, static_cast<std::ptrdiff_t>(area.size())),
                "the validation is wrong");
    check_type(held, naive_one);
    check_agent(held, naive_one);
    check_identifiers(held, naive_one);
    check_notes(held, naive_one);
    if (whole) check_view(message, naive_one, valid);
    const std::uint32_t port = data[0] * 256U + data[1];
    check_filling(message, port);
    if (valid && whole) check_round_trip(message, port);
    return 0;
}

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t *data, std::size_t size, std::size_t max_size,
                                               unsigned seed) {
    pieces::dice draw(seed);
    constexpr std::size_t before = 6;  // the port and the cookie
    if (size < before || draw.one_in(6)) return LLVMFuzzerMutate(data, size, max_size);
    const bytes area = pieces::change_options(bytes(data + before, data + size), draw);
    return pieces::put({area}, bytes(data, data + before), data, max_size);
}
