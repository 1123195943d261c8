// SPDX-License-Identifier: Apache-2.0
// Server tables of an interface. The operations work on the caller's copy of the record.
#ifndef RAVO_IF_SERVER_H
#define RAVO_IF_SERVER_H

#include <cstdint>

#include "ravo_db_if.h"

// How the vendor class of an option 60 host is compared with a client's.
inline constexpr std::uint32_t RAVO_RULE_EXACT = 0;
inline constexpr std::uint32_t RAVO_RULE_PARTIAL = 1;

// Tells whether two client identifiers (at least 4 bytes each) count as the same. deliberate: those do that differ only
// behind their fourth byte.
[[nodiscard]] bool ravo_same_client_id(const std::uint8_t *first, const std::uint8_t *second);

// Returns 1 when the interface, looked up by its number, has at least one plain server, else 0.
[[nodiscard]] int ravo_if_get_server(const iface *iface);

// Each find returns an index 0 to 3, or -1. addr: network byte order.
[[nodiscard]] int ravo_if_find_server_host_by_ip(const iface *iface, std::uint32_t addr);
[[nodiscard]] int ravo_if_find_option60_server_host_by_ip(const iface *iface, const char *vendor, std::uint32_t rule,
                                                          std::uint32_t addr);
[[nodiscard]] int ravo_if_find_option61_server_host_by_ip(const iface *iface, const std::uint8_t *client_id,
                                                          std::uint32_t addr);
[[nodiscard]] int ravo_if_find_first_unused_server_host(const iface *iface);
[[nodiscard]] int ravo_if_option60_find_first_unused_server_host(const iface *iface);
[[nodiscard]] int ravo_if_option61_find_first_unused_server_host(const iface *iface);

// Converts the digits of a client identifier (without "0x") to bytes: an odd first digit alone, then pairs. out:
// zero-filled by the caller, size bytes; digits that do not fit are left out. Returns the number of bytes the digits
// stand for.
[[nodiscard]] std::uint32_t ravo_client_id_bytes(const char *digits, std::uint8_t *out, std::uint32_t size);

// Each add returns a result code. ip_text: dotted address, null: nothing happens; rule: 0 exact, 1 partial; hex_text:
// the digits of a client identifier.
[[nodiscard]] std::uint32_t RAVO_IF_Add_Server_Host(iface *iface, const char *ip_text);
[[nodiscard]] std::uint32_t RAVO_IF_Add_Option60_Server_Host(iface *iface, const char *vendor, std::uint32_t rule,
                                                             const char *ip_text);
[[nodiscard]] std::uint32_t RAVO_IF_Add_Option61_Server_Host(iface *iface, const char *hex_text, const char *ip_text);

// Each delete returns RAVO_ERR_NO_SERVER, or a remaining server count. Criteria may be null.
[[nodiscard]] std::uint32_t ravo_if_del_server_host(iface *iface, const char *ip_text);
[[nodiscard]] std::uint32_t ravo_if_del_option60_server_host(iface *iface, const char *vendor, const char *rule_word,
                                                             const char *ip_text);
[[nodiscard]] std::uint32_t ravo_if_del_option61_server_host(iface *iface, const std::uint8_t *client_id,
                                                             const char *ip_text);

#endif
