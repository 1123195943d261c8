// SPDX-License-Identifier: Apache-2.0
// Access to the relay's data for the platform's own commands.
//
// The daemon provides a table of functions and hands it over before the frame runs; the platform calls them on the
// event thread. Data is copied out in plain records, so that nothing of the daemon's is held by the platform. The
// platform uses it for what the relay's own commands do not cover: the settings that the relay's section of the running
// configuration leaves out, structured output, and local relay.
#ifndef PLATFORM_RELAY_ACCESS_H
#define PLATFORM_RELAY_ACCESS_H

#include <stdint.h>

#include "if_utl.h"

#ifdef __cplusplus
extern "C" {
#endif

#define RELAY_ACCESS_SERVERS 4
#define RELAY_ACCESS_VLANS 4096

// The global settings.
struct relay_settings {
    uint32_t relay_enable;                          // 1: on
    uint32_t option_state;                          // 1: option 82 is inserted
    uint32_t policy;                                // 1 replace, 2 drop, 3 keep
    uint32_t check;                                 // 1: replies are checked
    uint32_t hops;                                  // 1 to 16
    uint32_t trust_all;                             // 1 after "ip dhcp relay information trust-all"
    uint32_t local_relay_enable;                    // 1: local relay on
    uint16_t local_relay_vlan[RELAY_ACCESS_VLANS];  // VLAN ids, 0: empty slot
    int32_t server_socket;                          // descriptors, -1: not open
    int32_t raw_socket;
    int32_t listen_socket;
    uint32_t received[8];  // DISCOVER, OFFER, REQUEST, ACK, DECLINE, NAK, INFORM, RELEASE
};

// A server for one vendor class.
struct relay_option60_host {
    uint32_t used;        // 1: the entry holds a host
    uint32_t match_rule;  // 0 exact, 1 partial
    char vendor[68];      // NUL-terminated
    uint32_t server;      // network byte order
};

// A server for one client identifier.
struct relay_option61_host {
    uint32_t used;
    uint8_t client_id[129];
    uint32_t client_id_length;  // bytes of client_id that count
    uint32_t server;            // network byte order
};

// One interface record.
struct relay_interface {
    char name[IF_UTL_NAME_SIZE];
    uint32_t ifindex;
    uint32_t address;  // network byte order, 0: none
    uint8_t mac[16];
    uint32_t mac_length;
    uint32_t trusted;
    uint32_t local_relay;
    uint32_t servers[RELAY_ACCESS_SERVERS];  // network byte order, 0: empty slot
    struct relay_option60_host option60[RELAY_ACCESS_SERVERS];
    struct relay_option61_host option61[RELAY_ACCESS_SERVERS];
};

// One remembered transaction.
struct relay_transaction {
    uint32_t xid;  // as it is in the message
    uint32_t module;
    uint32_t port;
};

// The daemon's functions. "Next" functions take the record last given and replace it by the one after it; a record that
// has gone meanwhile has its place in the order all the same.
struct relay_access {
    void (*settings)(struct relay_settings *out);
    int (*interface_get)(const char *name, struct relay_interface *out);  // 1 found, 0 not
    int (*interface_first)(struct relay_interface *out);                  // 1, or 0 when there is none
    int (*interface_next)(struct relay_interface *inout);                 // 1, or 0 at the end
    // Makes the record of an interface that has none, without settings. Returns 1, 0 on failure.
    int (*interface_make)(const char *name);
    int (*transaction_first)(struct relay_transaction *out);
    int (*transaction_next)(struct relay_transaction *inout);
    // Local relay on (1) or off (0). Returns 1 when it changed, 0 when it was so already.
    int (*local_relay_set)(int on);
    // Adds or removes VLAN ids: 8192 bytes of 4096 16-bit ids in host order (0: none), one byte whose lowest bit means
    // add, one byte unused. Returns 1; 0 when the list has no room (then nothing is changed).
    int (*local_relay_vlans)(const void *request);
    // Local relay of one interface on (1) or off (0); to turn it on the record is made when there is none. Returns 1,
    // 0 on failure.
    int (*interface_local_relay_set)(const char *name, int on);
    // Remembers a transaction as a request does, one of the same id being replaced. Returns 1, 0 when memory is used
    // up.
    int (*transaction_add)(const struct relay_transaction *transaction);
    // The interface that takes what is for an address, the one that the relay itself would find; address: network byte
    // order, 0 for one that has none. 1 found, 0 not.
    int (*interface_at)(uint32_t address, struct relay_interface *out);
};

// Hands the table to the platform. access: static, never copied. Called once, before VEX_INIT_Sys_Init.
void relay_access_register(const struct relay_access *access);

#ifdef __cplusplus
}
#endif

#endif
