// Frames to clients, and the check of option 82 in replies.
#ifndef RAVO_IF_CLIENT_H
#define RAVO_IF_CLIENT_H

#include <cstddef>
#include <cstdint>

#include "pkt_origin.h"
#include "ravo_db_if.h"

inline constexpr std::size_t RAVO_FRAME_HEADER_SIZE = 42;  // Ethernet 14, IPv4 20, UDP 8

// Ones' complement sum (RFC 1071) of size bytes as big-endian words, from an initial sum. Returns the 16-bit sum.
std::uint16_t checksumAdd(const void *data, std::size_t length, std::uint32_t initial);
// Stores the checksum of a 20-byte IPv4 header into it.
void ipChecksum(std::uint8_t *ip_header);
// Stores the checksum of a UDP datagram into its header. payload: UDP length - 8 bytes.
void udpChecksum(std::uint8_t *udp_header, const std::uint8_t *ip_header, const std::uint8_t *payload);

// Completes a frame header (42 bytes with destination MAC, EtherType, destination address and ports set) and sends it
// and the message out of an interface.
void sendEtherFrame(const iface *iface, std::uint8_t *frame, const std::uint8_t *message, std::uint32_t length,
                    pkt_origin origin);
// Delivers a BOOTREPLY to its client. header and message: the same message.
void ravo_if_send_to_client(const iface *iface, const std::uint8_t *header, const std::uint8_t *message,
                            std::uint32_t length, pkt_origin origin);
// Broadcasts a BOOTREQUEST again out of the relay interface.
void ravo_if_send_local_relay(const iface *iface, const std::uint8_t *header, const std::uint8_t *message,
                              std::uint32_t length, pkt_origin origin);

// Checks that a reply's option 82 names this interface and the port of its transaction. op82: its first sub-option
// inside a message_buffer, or null; header: the message. Returns 1 when the reply may be delivered, else 0.
int ravo_option_check_reply(const iface *iface, const std::uint8_t *op82, const std::uint8_t *header);

#endif
