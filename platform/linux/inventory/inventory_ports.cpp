// Port numbers.
//
// Two tables, one the inverse of the other, never forget: a transaction that waits for its reply and a circuit id that
// a server stored both name a port by its number, so a device that goes and comes back must have the one it had.
#include "inventory/inventory_ports.h"

#include <algorithm>

#include "log/log.h"

namespace ravo::platform {

namespace {

void give(port_table *table, const std::string &device, std::uint32_t number) {
    table->number_of[device] = number;
    table->device_of[number] = device;
}

void take_back(port_table *table, const std::string &device) {
    const auto found = table->number_of.find(device);
    if (found == table->number_of.end()) return;
    table->search_from = std::min(table->search_from, found->second);
    table->of_kernel.erase(found->second);
    table->device_of.erase(found->second);
    table->number_of.erase(found);
}

std::uint32_t lowest_free(port_table *table) {
    std::uint32_t &number = table->search_from;
    while (number <= last_port_number && table->device_of.contains(number)) ++number;
    return number <= last_port_number ? number : 0;
}

}  // namespace

void port_table_describe(port_table *table, const switch_description &description) {
    for (const described_port &port : description.ports) {
        const std::uint32_t number = port_number_of(port.module, port.port);
        const auto owner = table->device_of.find(number);
        if (owner != table->device_of.end()) {
            if (owner->second == port.device) continue;
            take_back(table, std::string(owner->second));
        }
        take_back(table, port.device);
        give(table, port.device, number);
    }
}

std::uint32_t port_table_number(port_table *table, const std::string &device, int kernel_ifindex) {
    const auto found = table->number_of.find(device);
    if (found != table->number_of.end()) return found->second;

    auto number = static_cast<std::uint32_t>(kernel_ifindex);
    // The kernel gives a number to one device at a time: whoever had this one for its kernel number was renamed or is
    // gone.
    if (is_port_number(kernel_ifindex) && table->of_kernel.contains(number))
        take_back(table, std::string(table->device_of[number]));
    if (!is_port_number(kernel_ifindex) || table->device_of.contains(number)) {
        number = lowest_free(table);
        if (is_port_number(kernel_ifindex))
            log_line(
                log_level_warning,
                "interfaces: %s cannot be port number %d, which %s has; it gets %u (a [[port]] entry in the switch "
                "description settles it)",
                device.c_str(), kernel_ifindex, table->device_of[static_cast<std::uint32_t>(kernel_ifindex)].c_str(),
                number);
    }
    if (number == 0) {
        log_line(log_level_error, "interfaces: no port number is left for %s", device.c_str());
        return 0;
    }
    give(table, device, number);
    if (number == static_cast<std::uint32_t>(kernel_ifindex)) table->of_kernel.insert(number);
    return number;
}

}  // namespace ravo::platform
