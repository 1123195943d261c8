// SPDX-License-Identifier: Apache-2.0
// Words and texts for the outcomes of messages, in the order of outcome.h.
#ifndef PLATFORM_LINUX_BOOKS_OUTCOME_WORDS_H
#define PLATFORM_LINUX_BOOKS_OUTCOME_WORDS_H

#include <array>
#include <string_view>

#include "outcome.h"

namespace ravo::platform {

struct outcome_name {
    relay_outcome outcome;
    std::string_view word;  // stable: programs read it
    std::string_view text;  // for a person
};

inline constexpr std::array<outcome_name, OUTCOMES> outcome_words{{
    {OUTCOME_NONE, "undecided", "no outcome was recorded"},
    {OUTCOME_RELAYED, "relayed", "relayed to servers"},
    {OUTCOME_DELIVERED, "delivered", "delivered to the client"},
    {OUTCOME_REBROADCAST, "rebroadcast", "broadcast again locally"},
    {OUTCOME_TRUNCATED, "truncated", "shorter than its headers say"},
    {OUTCOME_FRAGMENT, "fragment", "part of a fragmented packet"},
    {OUTCOME_BAD_IP_CHECKSUM, "bad-ip-checksum", "wrong IP header checksum"},
    {OUTCOME_BAD_UDP_CHECKSUM, "bad-udp-checksum", "wrong UDP checksum"},
    {OUTCOME_UNKNOWN_VLAN, "unknown-vlan", "no VLAN interface for its VLAN"},
    {OUTCOME_UNKNOWN_PORT, "unknown-port", "came in on a device that is no port"},
    {OUTCOME_PORT_LIMIT, "port-limit", "more messages than the port may send"},
    {OUTCOME_BRIDGE_REFUSED, "bridge-refused", "refused by the bridge, or addressed to another machine"},
    {OUTCOME_PORT_HELD, "port-held", "the port is held after a crash"},
    {OUTCOME_CORE_ASSERTION, "core-assertion", "reply that the relay could answer only by ending"},
    {OUTCOME_GUARD_SERVER_PORT, "guard-server-port", "reply from a port that is not for servers"},
    {OUTCOME_GUARD_SERVER, "guard-server", "reply from no configured server"},
    {OUTCOME_GUARD_CIRCUIT_ID, "guard-circuit-id", "reply with a circuit id of another length"},
    {OUTCOME_GUARD_RELAY_FIELDS, "guard-relay-fields", "relay address or option 82 from a port that is not trusted"},
    {OUTCOME_GUARD_SOURCE_MAC, "guard-source-mac", "client hardware address other than the frame's source"},
    {OUTCOME_GUARD_DESTINATION, "guard-destination", "to the address of another VLAN's interface"},
    {OUTCOME_GUARD_CLIENTS, "guard-clients", "more client addresses than the port may have"},
    {OUTCOME_GUARD_TRANSACTION, "guard-transaction", "open transaction of another port or client"},
    {OUTCOME_BAD_FLAGS, "bad-flags", "flags other than the broadcast bit"},
    {OUTCOME_HOP_LIMIT, "hop-limit", "passed too many relays"},
    {OUTCOME_UNKNOWN_OPERATION, "unknown-operation", "neither request nor reply"},
    {OUTCOME_BAD_OPTIONS, "bad-options", "broken option area"},
    {OUTCOME_NO_MESSAGE_TYPE, "no-message-type", "no DHCP message type"},
    {OUTCOME_UNKNOWN_MESSAGE_TYPE, "unknown-message-type", "unknown DHCP message type"},
    {OUTCOME_RELAY_OFF, "relay-off", "relaying is disabled"},
    {OUTCOME_NO_INTERFACE, "no-interface", "no relay interface for its VLAN"},
    {OUTCOME_NO_ADDRESS, "no-address", "to an address that no interface has"},
    {OUTCOME_TOO_SHORT, "too-short", "shorter than a DHCP message"},
    {OUTCOME_UNTRUSTED_OPTION82, "untrusted-option82", "option 82 from a client on an untrusted interface"},
    {OUTCOME_POLICY_DROP, "policy-drop", "option 82 of another relay, policy drop"},
    {OUTCOME_NO_OPTION82, "no-option82", "reply without option 82"},
    {OUTCOME_CIRCUIT_ID, "circuit-id", "reply with another circuit id"},
    {OUTCOME_REMOTE_ID, "remote-id", "reply with another remote id"},
    {OUTCOME_UNKNOWN_TRANSACTION, "unknown-transaction", "reply to an unknown transaction"},
    {OUTCOME_NO_SERVER, "no-server", "the interface has no server for it"},
    {OUTCOME_SEND_FAILED, "send-failed", "could not be sent"},
    {OUTCOME_NO_HARDWARE_ADDRESS, "no-hardware-address", "the interface has no hardware address"},
    {OUTCOME_ALREADY_ANSWERED, "already-answered", "another answer reached the client first"},
}};

// The table names every outcome at its own place.
static_assert([] {
    for (std::size_t i = 0; i < outcome_words.size(); ++i)
        if (outcome_words[i].outcome != static_cast<relay_outcome>(i) || outcome_words[i].word.empty()) return false;
    return true;
}());

}  // namespace ravo::platform

#endif
