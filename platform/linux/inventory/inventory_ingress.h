// Where frames first enter the box, and which VLAN interface they belong to.
#ifndef PLATFORM_LINUX_INVENTORY_INVENTORY_INGRESS_H
#define PLATFORM_LINUX_INVENTORY_INVENTORY_INGRESS_H

#include "inventory/inventory_model.h"

namespace ravo::platform {

// Notes a device, and every device below it on which its frames come in, as one that may have become or ceased to be a
// tap. To be called before and after a change of what stands on what.
void suspect_below(inventory_model *model, int ifindex);

}  // namespace ravo::platform

#endif
