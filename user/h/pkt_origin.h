// SPDX-License-Identifier: Apache-2.0
// Where a message came in, passed by value from the receive handlers to the frame sender.
#ifndef RAVO_PKT_ORIGIN_H
#define RAVO_PKT_ORIGIN_H

#include <cstdint>

struct pkt_origin {
    // Where the message was received: VLAN id on the layer-2 path, interface number on the UDP path.
    std::uint32_t vlan_ifindex;
    std::uint32_t port_ifindex;  // ingress port's number (port_number.h), 0 when unknown
};

static_assert(sizeof(pkt_origin) == 8);

#endif
