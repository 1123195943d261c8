// SPDX-License-Identifier: Apache-2.0
// Forwarding of requests to servers.
#ifndef RAVO_IF_FORWARD_H
#define RAVO_IF_FORWARD_H

#include <sys/socket.h>

#include <cstdint>

#include "pkt_origin.h"
#include "ravo_db_if.h"

// Sends a request to the servers of its interface: those chosen by option 60 or 61, else the plain ones. opt61_data: at
// least 4 bytes; opt60_data: NUL-terminated; origin: not used. Returns 0.
int ravo_if_send_server_Unicast(const iface *iface, const std::uint8_t *message, std::uint32_t length,
                                const std::uint8_t *opt61_data, const char *opt60_data, std::uint32_t opt60_found,
                                std::uint32_t opt61_found, pkt_origin origin);

// Traces a copy for a server that the system refused after it was sent (osal_gather). to: an IPv4 socket address.
void ravo_if_server_refused(int fd, const sockaddr *to, int error);

#endif
