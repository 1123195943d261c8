// SPDX-License-Identifier: Apache-2.0
// Local relay: requests broadcast again with option 82, for a server on another VLAN of the switch.
#ifndef RAVO_IF_LOCAL_H
#define RAVO_IF_LOCAL_H

#include <cstdint>

#include "pkt_origin.h"
#include "ravo_db.h"
#include "ravo_db_if.h"

// Request to add or remove VLAN ids.
struct vlanid_cfg_req {
    std::uint16_t vlan[RAVO_LOCAL_RELAY_VLANS];  // VLAN ids, host byte order; 0: empty slot
    std::uint8_t VlanIdAddFlag;                  // bit 0: add the ids, else remove them
    std::uint8_t reserved;
};

static_assert(sizeof(vlanid_cfg_req) == 8194);

// Stamps a request with option 82 and broadcasts it out of its interface. message is in a message_buffer.
void ravo_local_relay_handle_pkt(const iface *iface, std::uint8_t *message, std::uint32_t length, pkt_origin origin);

// Applies a request to the VLAN list. Returns 1; 0 when the request is null or the list has no room (nothing changed).
[[nodiscard]] int RAVO_Set_VLANID_Req_do(const vlanid_cfg_req *request);
// The same with the request as a raw message of 8194 bytes; null gives 0.
[[nodiscard]] int RAVO_Set_VLANID_Req(const void *raw);

// Marks a record for local relay; storing it is the caller's. Returns 0.
int RAVO_Enable_Dhcp_LocalRelay(iface *record);

#endif
