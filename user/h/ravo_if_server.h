// Server tables of an interface, and forwarding of requests to servers.
//
// The table operations work on the caller's copy of the record.
#ifndef RAVO_IF_SERVER_H
#define RAVO_IF_SERVER_H

#include <cstdint>

#include "pkt_origin.h"
#include "ravo_db_if.h"

// Each find returns an index 0 to 3, or -1. addr: network byte order.
int ravo_if_find_server_host_by_ip(const iface *iface, std::uint32_t addr);
int ravo_if_find_option60_server_host_by_ip(const iface *iface, const char *vendor, std::uint32_t rule,
                                            std::uint32_t addr);
int ravo_if_find_option61_server_host_by_ip(const iface *iface, const std::uint8_t *client_id, std::uint32_t addr);
int ravo_if_find_first_unused_server_host(const iface *iface);
int ravo_if_option60_find_first_unused_server_host(const iface *iface);
int ravo_if_option61_find_first_unused_server_host(const iface *iface);

// Converts the digits of a client identifier (without "0x") to bytes: an odd first digit alone, then pairs. out:
// zero-filled by the caller, size bytes; digits that do not fit are left out. Returns the number of bytes the digits
// stand for.
std::uint32_t ravo_client_id_bytes(const char *digits, std::uint8_t *out, std::uint32_t size);

// Each add returns a result code. ip_text: dotted address, null: nothing happens; rule: 0 exact, 1 partial; hex_text:
// the digits of a client identifier.
std::uint32_t RAVO_IF_Add_Server_Host(iface *iface, const char *ip_text);
std::uint32_t RAVO_IF_Add_Option60_Server_Host(iface *iface, const char *vendor, std::uint32_t rule,
                                               const char *ip_text);
std::uint32_t RAVO_IF_Add_Option61_Server_Host(iface *iface, const char *hex_text, const char *ip_text);

// Each delete returns RAVO_ERR_NO_SERVER, or a remaining server count. Criteria may be null.
std::uint32_t ravo_if_del_server_host(iface *iface, const char *ip_text);
std::uint32_t ravo_if_del_option60_server_host(iface *iface, const char *vendor, const char *rule_word,
                                               const char *ip_text);
std::uint32_t ravo_if_del_option61_server_host(iface *iface, const std::uint8_t *client_id, const char *ip_text);

// Brings the relay back to its state after start-up: default settings, no interface record, no socket. Returns 0.
int RAVO_IF_Reset();

// Sends a request to the servers of its interface: those chosen by option 60 or 61, else the plain ones. opt61_data: at
// least 4 bytes; opt60_data: NUL-terminated; origin: not used. Returns 0.
int ravo_if_send_server_Unicast(const iface *iface, const std::uint8_t *message, std::uint32_t length,
                                const std::uint8_t *opt61_data, const char *opt60_data, std::uint32_t opt60_found,
                                std::uint32_t opt61_found, pkt_origin origin);

#endif
