// SPDX-License-Identifier: Apache-2.0
// The trap: on ports that ask for it, what clients broadcast goes to the relay and is not forwarded by the bridge.
//
// A bridge forwards a client's broadcast to every port of its VLAN, also to a server there, which then gets it twice:
// as the client sent it and as the relay sent it with option 82.
#ifndef PLATFORM_LINUX_TRAP_TRAP_H
#define PLATFORM_LINUX_TRAP_TRAP_H

#include <cstddef>
#include <vector>

#include "inventory/inventory.h"
#include "inventory/switch_description.h"

namespace ravo::platform {

// Installs what the description says of traps. While the trap is in force, the ports' filters follow at once.
void trap_describe(const switch_description &description);

// Removes the filters that a process before this one left when it ended without its last words. Called at start.
void trap_remove_stale();

// The relay hears these devices: traps those of them that want it, and no others. Called when the channel opens and
// whenever its devices changed. What cannot be done is logged, once a device, and the relay goes on.
void trap_follow(std::vector<tap_device> heard);

// The relay listens no more: removes all filters, so that the bridge forwards everything again.
void trap_release();

// The number of devices that are trapped.
std::size_t trap_count();

}  // namespace ravo::platform

#endif
