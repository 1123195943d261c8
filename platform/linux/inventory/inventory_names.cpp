// SPDX-License-Identifier: Apache-2.0
// Names of VLAN interfaces: "vlan" and a number, which may have leading zeros.
#include "inventory/inventory_names.h"

namespace ravo::platform {

std::uint16_t vlan_of_name(std::string_view name) {
    constexpr std::string_view prefix = "vlan";
    if (!name.starts_with(prefix) || name.size() == prefix.size()) return 0;
    unsigned vlan = 0;
    for (const char c : name.substr(prefix.size())) {
        if (c < '0' || c > '9') return 0;
        vlan = vlan * 10 + static_cast<unsigned>(c - '0');
        if (vlan > last_vlan) return 0;
    }
    return static_cast<std::uint16_t>(vlan);
}

}  // namespace ravo::platform
