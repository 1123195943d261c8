// SPDX-License-Identifier: Apache-2.0
// The relation between names and numbers of VLAN interfaces.
#ifndef PLATFORM_LINUX_INVENTORY_INVENTORY_NAMES_H
#define PLATFORM_LINUX_INVENTORY_INVENTORY_NAMES_H

#include <cstdint>
#include <string_view>

namespace ravo::platform {

inline constexpr std::uint16_t last_vlan = 4094;
inline constexpr std::uint32_t vlan_number_base = 1024;  // a VLAN interface's number: this + VLAN id

// Returns the VLAN id of a name "vlanN", also with leading zeros; 0 for any other name and for N not from 1 to 4094.
std::uint16_t vlan_of_name(std::string_view name);

// Returns the VLAN id of an interface number; 0 when it is no VLAN interface's.
constexpr std::uint16_t vlan_of_number(std::uint32_t number) {
    return number > vlan_number_base && number <= vlan_number_base + last_vlan
               ? static_cast<std::uint16_t>(number - vlan_number_base)
               : std::uint16_t{0};
}

}  // namespace ravo::platform

#endif
