// SPDX-License-Identifier: Apache-2.0
// A bridge's table of stations, asked about one: what decides whether a locked port takes a frame.
#ifndef PLATFORM_LINUX_INVENTORY_INVENTORY_STATIONS_H
#define PLATFORM_LINUX_INVENTORY_INVENTORY_STATIONS_H

#include <cstdint>

#include "inventory/inventory_change.h"

struct nlmsghdr;

namespace ravo::platform {

// Tells whether the bridge takes frames from a station at a locked member: its table has the station at this port, not
// as the box itself, and the entry is not locked in turn. vlan: 0 for a bridge that is not VLAN-aware. Not when the
// kernel does not answer.
bool stations_admit(int member, std::uint16_t vlan, const mac_address &station);

// The same of an entry as the kernel reports it; message as in netlink_parse.
bool stations_entry_admits(const struct nlmsghdr *message, int member);

}  // namespace ravo::platform

#endif
