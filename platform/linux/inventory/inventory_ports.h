// SPDX-License-Identifier: Apache-2.0
// The numbers of the front-panel ports: which device is which port, and why.
//
// The first that fits: the switch description; what the device of this name had before; its kernel number, where that
// is a port's number; the port name that its driver gives it ("p7"); a name of letters and one number ("swp7"), when no
// other port claims the same; the next free number. A number once given stays with the name, also while its device is
// away and, where there is a state folder, from one life of the process to the next. When all are given, those of
// devices that are away are given again, the longest absent first.
#ifndef PLATFORM_LINUX_INVENTORY_INVENTORY_PORTS_H
#define PLATFORM_LINUX_INVENTORY_INVENTORY_PORTS_H

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "inventory/switch_description.h"
#include "port_number.h"

namespace ravo::platform {

inline constexpr std::uint32_t first_port_number = PORT_NUMBER_FIRST;
inline constexpr std::uint32_t last_port_number = PORT_NUMBER_LAST;
// A kernel number beyond module 32 is no port's: a box whose devices come and go counts on and on.
inline constexpr std::uint32_t last_kernel_port_number = 7167;

// Why a port has its number.
enum class port_reason {
    description,    // the switch description says so
    kernel_index,   // its kernel number is one
    physical_name,  // its driver calls it so
    name,           // its name ends in it
    next_free,      // it was free: a guess
    earlier,        // it had it for one of the first reasons, which does not hold any more
};

// The word for a reason: "description", "kernel index", "port name", "name", "next free", "earlier".
std::string_view port_reason_word(port_reason reason);

struct given_port {
    std::uint32_t number = 0;
    port_reason reason = port_reason::next_free;
    std::int64_t absent_us = 0;  // since when its device is away, microseconds since 1970; 0: it is there
};

// A device that is to have a port's number.
struct port_device {
    std::string name;
    int kernel_ifindex = 0;
    std::string physical_name;  // as its driver has it, mostly empty
};

// Tells whether a number must not be given to another device now.
using port_in_use = std::function<bool(std::uint32_t number)>;

struct port_table {
    std::unordered_map<std::string, given_port> of_device;     // by device name
    std::unordered_map<std::uint32_t, std::string> device_of;  // by number
    std::set<std::pair<std::int64_t, std::uint32_t>> absent;   // since when and number, of those that are away
    std::unordered_set<std::string> described;                 // devices that the description names now
    std::unordered_set<std::uint32_t> taken_back;              // numbers that another device had before
    std::uint32_t search_from = first_port_number;             // every number below is given
    bool changed = false;                                      // since the table was last written
};

// Gives the described ports their numbers. A device that had one of these numbers before loses it.
void port_table_describe(port_table *table, const switch_description &description);

// Takes note of devices that are there, and gives numbers to those that have none. in_use: asked before a number that
// another device had is given again.
void port_table_give(port_table *table, const std::vector<port_device> &devices, const port_in_use &in_use);

// Takes note of a device that went.
void port_table_gone(port_table *table, const std::string &device, std::int64_t now_us);

// Returns the number of the port with this device; 0 when it has none.
std::uint32_t port_table_number(const port_table &table, const std::string &device);

// Forgets the numbers of devices that are away and not described. Returns how many.
std::size_t port_table_forget(port_table *table);

// The table as text, a port a line.
std::string port_table_text(const port_table &table);

// Takes in what such a text says of devices that have no number yet, as devices that are away. Returns what is wrong
// with lines, each "LINE: reason"; those are left out.
std::vector<std::string> port_table_read(port_table *table, std::string_view text, std::int64_t now_us);

// "swp7" before "swp10".
bool natural_less(std::string_view a, std::string_view b);

}  // namespace ravo::platform

#endif
