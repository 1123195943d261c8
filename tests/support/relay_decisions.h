// SPDX-License-Identifier: Apache-2.0
// Messages handed to the relay's decisions, and what is expected to leave.
#ifndef RELAY_DECISIONS_H
#define RELAY_DECISIONS_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "packet_relay.h"
#include "ravo_if_relay.h"

namespace packet {

using trace_lines = std::vector<fake::line>;

inline constexpr pkt_origin from_port_2_1 = {100, port_2_1};
inline const std::vector<std::uint32_t> no_transaction = {};
inline const std::string server_1 = "198.51.100.1:67";

// Hands a message to the decisions, on an interface that need not be stored.
inline void decide(const message &msg, const interface_of &via = {}, pkt_origin from = from_port_2_1) {
    held_message held(encode(msg));
    const iface relay = record(via);
    fake::forget();
    ravo_if_handle_pkt(&relay, held.data(), held.length, from);
}

inline message request_with(const std::vector<bytes> &options = {type(discover), end()}) {
    message msg;
    msg.options = options;
    return msg;
}

// The message as it leaves: hops raised, relay address set, with these options.
inline message relayed(message msg, const std::vector<bytes> &options, const std::string &giaddr = "192.0.2.1") {
    ++msg.hops;
    msg.giaddr = giaddr;
    msg.options = options;
    return msg;
}

inline frame_of to_client(const message &msg) {
    return {.to_ip = msg.yiaddr, .payload = encode(msg)};
}

}  // namespace packet

#endif
