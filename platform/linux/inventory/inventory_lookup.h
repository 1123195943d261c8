// SPDX-License-Identifier: Apache-2.0
// Looking into the inventory's model: which device lies on which, and which devices a change may concern.
#ifndef PLATFORM_LINUX_INVENTORY_INVENTORY_LOOKUP_H
#define PLATFORM_LINUX_INVENTORY_INVENTORY_LOOKUP_H

#include "inventory/inventory_model.h"

namespace ravo::platform {

// Deeper stacks of devices do not exist; records that contradict each other could form a ring.
inline constexpr int max_stack_depth = 8;

// Tells whether a device is a VLAN device on one that is known.
bool stands_on_another(const inventory_model &model, const device_record &device);

// Notes a device, and every device below it on which its frames come in, as one that may have become or ceased to be a
// tap. To be called before and after a change of which device lies on which.
void suspect_below(inventory_model *model, int ifindex);

}  // namespace ravo::platform

#endif
