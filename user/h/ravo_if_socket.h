// The relay's sockets, its receive handlers and the receive counters.
#ifndef RAVO_IF_SOCKET_H
#define RAVO_IF_SOCKET_H

#include <cstdint>

#include "ravo_db_if.h"

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

// Descriptors, -1 while not open.
extern int ravo_server_sock_fd;  // UDP, bound to port 68: requests to servers
extern int ravo_raw_sock_fd;     // packet socket: frames to clients
extern int ravo_listen_sock_fd;  // UDP, bound to port 67; not opened in normal operation
extern int ravo_l2_sock_fd;      // layer-2 packet channel

// Opens the relay's sockets; those already open stay. Returns 0, or RAVO_ERR_SOCKET.
std::uint32_t RAVO_IF_Create_fd();
// Closes the relay's sockets. Returns 0.
int ravo_if_close_all_fd();

int ravo_if_create_server_tx_socket();  // returns the descriptor
int ravo_if_create_raw_socket();        // returns the descriptor
int ravo_if_create_listen_fd();         // returns the descriptor, or -1 when its reader cannot be registered
int ravo_if_create_l2_fd();             // returns the descriptor when it was open, 1 when opened now, 0 on failure

// Returns 1 when the interface, looked up by its number, has at least one relay server, else 0.
int ravo_if_get_server(const iface *iface);

// The receive handlers, called by the platform with a readable descriptor; arg is not used.
void ravo_l2_listen_hdlr(int fd, void *arg);
void ravo_if_listen_hdlr(int fd, void *arg);

#endif
