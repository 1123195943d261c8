// The numbers of the front-panel ports: which device is which port.
//
// A port's number is 5120 + 64 * (module - 1) + port. The description gives it; without one a device whose kernel
// number lies in the range of ports keeps that, under whatever name, and any other gets the lowest free one from 5121
// on. A number once given otherwise stays with the device of that name for the life of the process.
#ifndef PLATFORM_LINUX_INVENTORY_INVENTORY_PORTS_H
#define PLATFORM_LINUX_INVENTORY_INVENTORY_PORTS_H

#include <cstdint>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "inventory/switch_description.h"
#include "port_number.h"

namespace ravo::platform {

inline constexpr std::uint32_t first_port_number = PORT_NUMBER_FIRST;
inline constexpr std::uint32_t last_port_number = PORT_NUMBER_LAST;

struct port_table {
    std::unordered_map<std::string, std::uint32_t> number_of;  // by device name
    std::unordered_map<std::uint32_t, std::string> device_of;  // by number
    std::unordered_set<std::uint32_t> of_kernel;               // numbers that are their devices' kernel numbers
    std::uint32_t search_from = first_port_number;             // every number below is taken
};

// Tells whether a kernel's device number can be a port's number as it is.
inline bool is_port_number(std::int64_t number) {
    return number >= 0 && number <= last_port_number && port_number_is_port(static_cast<std::uint32_t>(number)) != 0;
}

// Gives the described ports their numbers. A device that had one of these numbers before loses it.
void port_table_describe(port_table *table, const switch_description &description);

// Returns the number of the port with this device, given now if it has none yet. 0 when all are taken.
std::uint32_t port_table_number(port_table *table, const std::string &device, int kernel_ifindex);

}  // namespace ravo::platform

#endif
