// SPDX-License-Identifier: Apache-2.0
// The relay's decisions.
#ifndef RAVO_IF_RELAY_H
#define RAVO_IF_RELAY_H

#include <cstdint>

#include "dhcp.h"
#include "pkt_origin.h"
#include "ravo_db_if.h"

// Decides what happens to one valid message and sends it on. iface: the interface it came in on; message: is in a
// message_buffer and is edited there; length: its bytes; origin: where it came in.
void ravo_if_handle_pkt(const iface *iface, std::uint8_t *message, std::uint32_t length, pkt_origin origin);

// The same for a message that isValidHeader accepts and whose options are valid and were noted.
void ravo_if_handle_noted(const iface *iface, std::uint8_t *message, std::uint32_t length, pkt_origin origin,
                          const dhcp_notes &notes);

#endif
