// SPDX-License-Identifier: Apache-2.0
// The interface service as the daemon's frame drives it.
#ifndef PLATFORM_LINUX_INTERFACES_NSM_FEED_H
#define PLATFORM_LINUX_INTERFACES_NSM_FEED_H

#include <cstdint>
#include <functional>

#include "inventory/inventory.h"
#include "nsm.h"

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

// Who looks at the relay right before and right after each of its hooks that is called, with the VLAN of the interface
// that the hook is about. An interface that goes is not there any more in either look.
struct nsm_witness {
    std::function<void(std::uint16_t vlan)> before;
    std::function<void(std::uint16_t vlan)> after;
};
// Sets the one witness; empty functions: none.
void nsm_set_witness(nsm_witness wanted);

// Tells whether a VLAN's interface has a device now.
bool nsm_is_there(std::uint16_t vlan);

// Has the daemon bring its record of an interface up to date, or make one, if that is there and up. The witness is not
// asked.
void nsm_refresh_record(std::uint16_t vlan);

// Has the daemon lose its record of an interface of the caller's own making. The witness is not asked.
void nsm_delete_record(struct interface *ifp);

// Has the daemon lose its record of an interface, as if that went, and make an empty one if it is there and up. The
// witness is not asked. An interface that is not there is off the interface list then.
void nsm_drop_record(std::uint16_t vlan);

}  // namespace ravo::platform

#endif
