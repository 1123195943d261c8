// SPDX-License-Identifier: Apache-2.0
// Opening the relay's sockets (ravo_if_state.h has the descriptors and closes them).
#ifndef RAVO_IF_SOCKET_H
#define RAVO_IF_SOCKET_H

#include <cstdint>

// Opens the relay's sockets; those already open stay. Returns 0, or RAVO_ERR_SOCKET.
[[nodiscard]] std::uint32_t RAVO_IF_Create_fd();

[[nodiscard]] int ravo_if_create_server_tx_socket();  // returns the descriptor
[[nodiscard]] int ravo_if_create_raw_socket();        // returns the descriptor
// Returns the descriptor, or -1 when its reader cannot be registered.
[[nodiscard]] int ravo_if_create_listen_fd();
// Returns the descriptor when it was open, 1 when opened now, 0 on failure.
[[nodiscard]] int ravo_if_create_l2_fd();

#endif
