// SPDX-License-Identifier: Apache-2.0
// What became of each message.
//
// The platform keeps the books: every message that its packet channel receives ends in exactly one outcome. The daemon
// says, at each decision, what the outcome is; when it says more than once for one message, the last word counts.
#ifndef PLATFORM_OUTCOME_H
#define PLATFORM_OUTCOME_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum relay_outcome {
    OUTCOME_NONE,  // nothing said yet

    // Where the message went.
    OUTCOME_RELAYED,      // to at least one server
    OUTCOME_DELIVERED,    // to its client
    OUTCOME_REBROADCAST,  // locally, with option 82; also counted beside the outcome that follows

    // Dropped by the packet channel.
    OUTCOME_TRUNCATED,         // shorter than its headers say
    OUTCOME_FRAGMENT,          // part of a fragmented packet
    OUTCOME_BAD_IP_CHECKSUM,   //
    OUTCOME_BAD_UDP_CHECKSUM,  //
    OUTCOME_UNKNOWN_VLAN,      // no VLAN interface for its tag or its port's PVID
    OUTCOME_UNKNOWN_PORT,      // came in on a device that is no port any more
    OUTCOME_PORT_LIMIT,        // more than the port may send
    OUTCOME_BRIDGE_REFUSED,    // the bridge refuses it, or it is addressed to another machine
    OUTCOME_PORT_HELD,         // the port is held, since a message from it ended the daemon
    OUTCOME_CORE_ASSERTION,    // the relay could answer it only by ending

    // Dropped by a guard, where one is set.
    OUTCOME_GUARD_SERVER_PORT,   // a reply from a port that is not for servers
    OUTCOME_GUARD_SERVER,        // a reply from an address that is no configured server's
    OUTCOME_GUARD_CIRCUIT_ID,    // a reply whose circuit id has not the length that the relay writes
    OUTCOME_GUARD_RELAY_FIELDS,  // a relay address or option 82 from a port that is not trusted
    OUTCOME_GUARD_SOURCE_MAC,    // a client hardware address that is not the frame's source
    OUTCOME_GUARD_DESTINATION,   // to the address of another VLAN's interface
    OUTCOME_GUARD_CLIENTS,       // more client addresses than the port may have
    OUTCOME_GUARD_TRANSACTION,   // an open transaction of another port or client

    // Dropped by the relay.
    OUTCOME_BAD_FLAGS,             // flags other than the broadcast bit
    OUTCOME_HOP_LIMIT,             // passed too many relays
    OUTCOME_UNKNOWN_OPERATION,     // neither request nor reply
    OUTCOME_BAD_OPTIONS,           // no magic cookie, a broken option chain, or shorter than the fixed header
    OUTCOME_NO_MESSAGE_TYPE,       // no option 53
    OUTCOME_UNKNOWN_MESSAGE_TYPE,  // option 53 is 0 or above 8
    OUTCOME_RELAY_OFF,             // relaying is disabled
    OUTCOME_NO_INTERFACE,          // broadcast on a VLAN without an interface record
    OUTCOME_NO_ADDRESS,            // to an address that no interface has
    OUTCOME_TOO_SHORT,             //
    OUTCOME_UNTRUSTED_OPTION82,    // a client on an untrusted interface brought option 82
    OUTCOME_POLICY_DROP,           // option 82 of another relay, policy drop
    OUTCOME_NO_OPTION82,           // a reply without option 82
    OUTCOME_CIRCUIT_ID,            // a reply whose circuit id is not that of its transaction
    OUTCOME_REMOTE_ID,             // a reply whose remote id is not the interface's
    OUTCOME_UNKNOWN_TRANSACTION,   // a reply to no request that is remembered
    OUTCOME_NO_SERVER,             // the interface has no server for it
    OUTCOME_SEND_FAILED,           // no copy could be sent
    OUTCOME_NO_HARDWARE_ADDRESS,   // the interface has no hardware address to send from

    // Told by the platform in place of OUTCOME_UNKNOWN_TRANSACTION.
    OUTCOME_ALREADY_ANSWERED,  // another server answered first, and the client has that answer

    OUTCOMES  // number of outcomes
};

// Says what becomes of the message in hand.
void outcome_record(enum relay_outcome outcome);

// Adds a server (network byte order) to those that the message in hand was sent to.
void outcome_server(uint32_t server);

#ifdef __cplusplus
}
#endif

#endif
