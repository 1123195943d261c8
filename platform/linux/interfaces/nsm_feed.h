// The interface service as the daemon's frame drives it.
#ifndef PLATFORM_LINUX_INTERFACES_NSM_FEED_H
#define PLATFORM_LINUX_INTERFACES_NSM_FEED_H

#include <cstdint>

#include "inventory/inventory.h"

namespace ravo::platform {

// Brings the interface object of a VLAN (1 to 4094) up to date and calls the hooks for what changed. now: NULL when the
// interface does not exist.
void nsm_feed(std::uint16_t vlan, const interface_state *now);

// Has the inventory feed the interface objects from now on. To be called before the inventory is opened; another call
// does nothing.
void nsm_follow_inventory();

// Calls the hooks for every VLAN interface and address that exists now; from then on changes are delivered as they
// come. Called after the daemon's start-up callback, and again after its reset, which forgets all interfaces. Does
// nothing when nsm_client_start was not called.
void nsm_deliver_existing();

}  // namespace ravo::platform

#endif
