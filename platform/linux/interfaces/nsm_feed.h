// What the interface service is told by the inventory.
#ifndef PLATFORM_LINUX_INTERFACES_NSM_FEED_H
#define PLATFORM_LINUX_INTERFACES_NSM_FEED_H

#include <array>
#include <cstdint>
#include <vector>

#include "inventory/inventory_change.h"

namespace ravo::platform {

// The device behind a VLAN interface as it is now.
struct interface_state {
    int kernel_ifindex;
    bool up;
    std::array<std::uint8_t, 6> mac;
    const std::vector<address_record> *addresses;  // in the kernel's order, primary ones first
};

// Brings the interface object of a VLAN (1 to 4094) up to date and calls the hooks for what changed. now: NULL when the
// interface does not exist.
void nsm_feed(std::uint16_t vlan, const interface_state *now);

// Calls the hooks for all that exists, and lets nsm_feed call them from then on.
void nsm_deliver_existing();

}  // namespace ravo::platform

#endif
