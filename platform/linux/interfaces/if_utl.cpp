// SPDX-License-Identifier: Apache-2.0
// Names and numbers of interfaces. For VLAN interfaces the relation is arithmetic and holds whether or not there is
// such an interface; a port's name is its device's, and the inventory knows the numbers.
#include "if_utl.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "inventory/inventory.h"
#include "inventory/inventory_names.h"

extern "C" {

uint32_t if_utl_ifname_to_ifindex(const char *name) {
    if (name == nullptr) return 0;
    const std::string_view text(name, strnlen(name, IF_UTL_NAME_SIZE));
    if (text.empty() || text.size() == IF_UTL_NAME_SIZE) return 0;
    const std::uint16_t vlan = ravo::platform::vlan_of_name(text);
    return vlan != 0 ? ravo::platform::vlan_number_base + vlan
                     : ravo::platform::inventory_port_number(std::string(text));
}

int if_utl_ifindex_to_ifname(uint32_t ifindex, char *name) {
    const std::uint16_t vlan = ravo::platform::vlan_of_number(ifindex);
    if (vlan != 0) {
        std::snprintf(name, IF_UTL_NAME_SIZE, "vlan%u", static_cast<unsigned>(vlan));
        return 1;
    }
    const std::string device = ravo::platform::inventory_port_device(ifindex);
    std::snprintf(name, IF_UTL_NAME_SIZE, "%s", device.c_str());
    return device.empty() ? 0 : 1;
}

}  // extern "C"
