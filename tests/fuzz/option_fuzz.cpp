// SPDX-License-Identifier: Apache-2.0
// Surface: an option area, given to the validation, to every option walker and to the rewriting of option 82. The
// input's first two bytes choose the ingress port, the rest is the area from the magic cookie on.
//
// Contract: the validation reads nothing outside the area and accepts exactly the areas whose chain meets an end option
// and stops at the area's last byte. In a message buffer every walker ends inside it, also where the area is not valid.
// What is added to a valid area and taken out again leaves the same bytes up to the end option.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "packet_relay.h"
#include "ravo_if_option.h"

namespace {

using packet::bytes;

void require(bool condition, const char *what) {
    if (condition) return;
    std::fprintf(stderr, "option_fuzz: %s\n", what);
    std::abort();
}

// The rule of the chain, told once more and in another way.
bool chain_holds(const bytes &area) {
    if (area.empty()) return true;
    if (area.size() < 5 || packet::part_of(area, 0, 4) != packet::cookie) return false;
    bool end_met = false;
    std::size_t at = 4;
    while (at < area.size()) {
        const std::uint8_t code = area[at++];
        if (code == 255) end_met = true;
        if (code == 0 || code == 255) continue;
        if (at == area.size() || area[at] > area.size() - at - 1) return false;
        at += 1U + area[at];
    }
    return end_met;
}

bool is_valid(const bytes &area) {
    const auto exact = std::make_unique<std::uint8_t[]>(area.size());
    std::copy(area.begin(), area.end(), exact.get());
    return isValidOptions(exact.get(), static_cast<std::int32_t>(area.size())) != 0;
}

void walk(packet::held_message &held) {
    std::uint8_t type = 0;
    std::uint8_t *relay = nullptr;
    std::uint8_t client_id[129] = {};
    char vendor[65] = {};
    std::uint32_t found60 = 0;
    std::uint32_t found61 = 0;
    (void)DHCP_getMessageType(held.first_option(), &type);
    const int met = ravo_find_agent_option(held.first_option(), &relay, &type);
    require(met == 0 || relay == nullptr, "a pointer without an option 82");
    require(relay == nullptr || (relay >= held.first_option() && relay < held.buffer.bytes + sizeof held.buffer.bytes),
            "option 82 outside the buffer");
    ravo_find_option60_61(held.first_option(), client_id, vendor, &found60, &found61);
    require(vendor[64] == 0 && client_id[128] == 0, "an identifier longer than its limit");
}

void rewrite(const bytes &message, std::uint32_t port, bool valid) {
    const iface relay = packet::record();
    for (const int mode : {RAVO_FILL_NONE, RAVO_FILL_REMOVE, RAVO_FILL_ADD, RAVO_FILL_REPLACE}) {
        packet::held_message held(message);
        const std::uint32_t before = fillOptions(&relay, held.first_option(), RAVO_FILL_NONE, 0, port);
        const bytes original(held.first_option(), held.first_option() + std::min<std::uint32_t>(before, 784));
        const std::uint32_t after = fillOptions(&relay, held.first_option(), mode, 0, port);
        require(after <= 784 + 257 + 20, "a length beyond the buffer");
        if (!valid || mode != RAVO_FILL_ADD || after != before + 20) continue;
        require(isValidOptions(held.options(), static_cast<std::int32_t>(after + 4)) == 1, "no chain after adding");
        const std::uint32_t again = fillOptions(&relay, held.first_option(), RAVO_FILL_REMOVE, 0, port);
        require(again == before && std::equal(original.begin(), original.end(), held.first_option()),
                "added and removed is not the same");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size < 2) return 0;
    fake::print_from(104);
    fake::forget();
    const bytes area(data + 2, data + size);
    const bool valid = is_valid(area);
    require(valid == chain_holds(area), "the validation is wrong");
    const bytes message = packet::part_of(packet::join({bytes(236, 0), area}), 0, 1000);
    packet::held_message held(message);
    walk(held);
    rewrite(message, data[0] * 256U + data[1], valid && message.size() == 236 + area.size());
    return 0;
}
