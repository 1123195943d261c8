// SPDX-License-Identifier: Apache-2.0
// What the relay engine keeps for the whole process: its descriptors and its receive counters.
#ifndef RAVO_IF_STATE_H
#define RAVO_IF_STATE_H

#include <cstdint>

// Received messages by type, in the order they are shown.
struct ravo_rx_counter_table {
    std::uint32_t discover;
    std::uint32_t offer;
    std::uint32_t request;
    std::uint32_t ack;
    std::uint32_t decline;
    std::uint32_t nak;
    std::uint32_t inform;
    std::uint32_t release;
};
extern ravo_rx_counter_table ravo_rx_counters;

// Counts a message of this type (option 53), 1 to 8.
void ravo_count_message(std::uint8_t type);

// Descriptors, -1 while not open.
extern int ravo_server_sock_fd;  // UDP, bound to port 68: requests to servers
extern int ravo_raw_sock_fd;     // packet socket: frames to clients
extern int ravo_listen_sock_fd;  // UDP, bound to port 67; not opened in normal operation
extern int ravo_l2_sock_fd;      // layer-2 packet channel

// Handle of the reader that was registered last.
extern void *ravo_reader_handle;

// Closes the relay's sockets. Returns 0.
int ravo_if_close_all_fd();

#endif
