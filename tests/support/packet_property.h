// SPDX-License-Identifier: Apache-2.0
// What holds for any message whatever its bytes and whatever the settings: shared by the random traffic test and the
// fuzzer of the relay's message path.
#ifndef PACKET_PROPERTY_H
#define PACKET_PROPERTY_H

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "packet_relay.h"

namespace packet {

// One message of the packet channel and the relay it meets. The interface has the address 192.0.2.1.
struct scenario {
    settings relay;
    interface_of via;
    bytes received;  // as the channel delivers it: 24 bytes of headers, then the message
    std::uint16_t vlan = 100;
    std::uint32_t port = port_2_1;
};

inline std::size_t rebroadcasts() {
    return static_cast<std::size_t>(std::count(fake::outcomes.begin(), fake::outcomes.end(), OUTCOME_REBROADCAST));
}

inline void forget_transactions() {
    xid_entry entry{};
    while (ravo_db_xid_get_first(&entry) == 1) (void)ravo_db_xid_delete(&entry);
}

// Hands a message to the handler of the channel. Returns the message's outcome.
inline relay_outcome outcome_of(const bytes &received, std::uint16_t vlan, std::uint32_t port) {
    fake::forget();
    fake::put_channel({received, port, vlan});
    ravo_l2_listen_hdlr(ravo_l2_sock_fd, nullptr);
    return fake::outcomes.empty() ? OUTCOME_NONE : fake::outcomes.back();
}

// What was sent must fit the outcome.
inline std::string sending_fault(relay_outcome outcome) {
    if (fake::channel_waiting() != 0) return "the message was not taken";
    if (outcome <= OUTCOME_NONE || outcome >= OUTCOMES || outcome == OUTCOME_REBROADCAST)
        return "no final outcome: " + std::to_string(outcome);
    if (outcome > OUTCOME_REBROADCAST && outcome < OUTCOME_BAD_FLAGS) return "an outcome of the channel's";
    const bool relayed = outcome == OUTCOME_RELAYED;
    const bool delivered = outcome == OUTCOME_DELIVERED;
    if (relayed != !fake::datagrams.empty()) return std::to_string(fake::datagrams.size()) + " datagrams";
    if (fake::frames.size() != rebroadcasts() + (delivered ? 1 : 0))
        return std::to_string(fake::frames.size()) + " frames";
    return {};
}

// What is sent must be a message with a whole chain of options, one hop further, and with a relay address.
inline std::string relayed_fault(const bytes &sent, const bytes &message) {
    if (sent.size() < 236) return "less than a fixed header is sent";
    if (sent[3] != message[3] + 1) return "the hop count is wrong";
    if (part_of(sent, 24, 4) == bytes(4, 0)) return "the relay address is missing";
    bool whole = false;
    (void)options_of(sent, &whole);
    if (!whole) return "the options have no end";
    return {};
}

// Option 82 that was added to a request and comes back in the reply is removed again without a trace.
inline std::string round_trip_fault(const scenario &what, const bytes &message) {
    if (what.relay.option_state != 1 || what.relay.check != 1 || what.via.local_relay != 0) return {};
    if (what.via.maclen != 6 || fake::datagrams.empty()) return {};
    bool whole = false;
    const auto options = options_of(message, &whole);
    const auto is82 = [](const decoded_option &option) { return option.code == 82; };
    const bytes giaddr = part_of(message, 24, 4);
    if (!whole || std::any_of(options.begin(), options.end(), is82)) return {};
    if (giaddr != bytes(4, 0) && giaddr != bytes{192, 0, 2, 1}) return {};
    const bytes original = up_to_end(message);
    bytes answer = fake::datagrams[0].payload;
    if (answer.size() == original.size() + 20) {
        const std::size_t at = original.size() - 1;
        if (answer[at] != 82 || answer[at + 20] != 255) return "option 82 is not where the end option stood";
    } else if (original.size() - 240 + 4 <= 311 || answer.size() != original.size()) {
        return "option 82 was not added";
    } else {
        return {};
    }
    for (std::size_t at = 240; at + 2 < original.size(); at += original[at] == 0 ? 1U : original[at + 1] + 2U) {
        if (original[at] != 53) continue;
        // The type is the byte behind the length, also where that says that there is none.
        const std::uint8_t type = original[at + 2];
        if (type == decline || type == release) return {};  // not remembered
    }
    answer[0] = reply_op;
    answer[3] = 0;
    const arriving from_server = {.source = "198.51.100.1", .destination = "192.0.2.1", .source_port = 67};
    const relay_outcome outcome = outcome_of(channel_bytes(answer, from_server), what.vlan, what.port);
    if (outcome != OUTCOME_DELIVERED) return "its reply is not delivered: " + std::to_string(outcome);
    bytes expected = original;
    expected[0] = reply_op;
    expected[3] = 1;
    std::copy_n(bytes{192, 0, 2, 1}.begin(), 4, expected.begin() + 24);
    const bytes delivered = part_of(fake::frames[0].payload, 42, 1024);
    return delivered == expected ? "" : "added and removed is not the same: " + hex_diff(expected, delivered);
}

// What became of a message, and what does not hold; no fault when all is well.
struct verdict {
    relay_outcome outcome = OUTCOME_NONE;
    std::string fault = {};
};

// Runs one message through the relay. Transactions of earlier messages count.
inline verdict judge(const scenario &what) {
    set(what.relay);
    const iface stored = record(what.via);
    if (ravo_db_if_add(&stored) != 1) return {.fault = "the interface cannot be stored"};
    verdict result;
    result.outcome = outcome_of(what.received, what.vlan, what.port);
    result.fault = sending_fault(result.outcome);
    if (!result.fault.empty() || result.outcome != OUTCOME_RELAYED) return result;
    const bytes message = part_of(what.received, 24, 1000);
    for (const fake::datagram &sent : fake::datagrams)
        if (result.fault.empty()) result.fault = relayed_fault(sent.payload, message);
    if (result.fault.empty()) result.fault = round_trip_fault(what, message);
    return result;
}

}  // namespace packet

#endif
