// SPDX-License-Identifier: Apache-2.0
// Frames to clients.
#ifndef RAVO_IF_CLIENT_H
#define RAVO_IF_CLIENT_H

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>

#include "pkt_origin.h"
#include "ravo_db_if.h"

inline constexpr std::size_t RAVO_FRAME_HEADER_SIZE = 42;  // Ethernet 14, IPv4 20, UDP 8

// Tells whether frames can leave an interface: a record made by configuration before its interface came up has no
// hardware address to send from. When not, that is traced in the name of a procedure and said to be the outcome.
[[nodiscard]] bool ravo_if_has_hardware_address(const char *procedure, const iface *iface);

// Completes a frame header (42 bytes with destination MAC, EtherType, destination address and ports set) and sends it
// and the message out of an interface.
void sendEtherFrame(const iface *iface, std::uint8_t *frame, const std::uint8_t *message, std::uint32_t length,
                    pkt_origin origin);
// Traces a frame that the system refused after it was sent (osal_gather).
void ravo_if_frame_refused(int fd, const sockaddr *to, int error);
// Delivers a BOOTREPLY to its client. header and message: the same message.
void ravo_if_send_to_client(const iface *iface, const std::uint8_t *header, const std::uint8_t *message,
                            std::uint32_t length, pkt_origin origin);
// Broadcasts a BOOTREQUEST again out of the relay interface.
void ravo_if_send_local_relay(const iface *iface, const std::uint8_t *header, const std::uint8_t *message,
                              std::uint32_t length, pkt_origin origin);

#endif
