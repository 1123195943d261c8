// SPDX-License-Identifier: Apache-2.0
// A configuration by its meaning: what is set, however the lines are written that set it.
#ifndef PLATFORM_LINUX_CONFIGURATION_CONFIGURATION_MODEL_H
#define PLATFORM_LINUX_CONFIGURATION_CONFIGURATION_MODEL_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "relay_access.h"

namespace ravo::cli {

// What is configured. A new one is as the relay is without any settings.
struct configuration {
    bool relay = false;
    bool option82 = false;
    bool check = true;
    std::uint32_t policy = 1;  // 1 replace, 2 drop, 3 keep
    std::uint32_t hops = 4;
    bool trust_all = false;
    bool local_relay = false;
    std::set<std::uint16_t> local_relay_vlans;
    std::map<std::uint16_t, relay_interface> interfaces;  // by VLAN; of the records, only what commands set counts
};

// What is in force, with what waits for interfaces that are not there. Others may have their turns meanwhile.
configuration running_model();

// Marks the interfaces that are there as trusted, as "trust-all" does.
void trust_interfaces_there(configuration *of);

// Reads a configuration's text without anything being set. Lines are judged as when they are replayed; one that sets
// nothing, such as a show command, is a fault too. Others may have their turns meanwhile, as with `difference`. report:
// called for each fault with the line's number and one line that says what is wrong, and with which line. Returns the
// number of faults.
using line_report = std::function<void(std::size_t number, const std::string &reason)>;
int read_model(std::string_view text, configuration *out, const line_report &report);

// The commands of a configuration: the global ones, and those of an interface, each without its line end.
std::vector<std::string> global_commands(const configuration &of);
std::vector<std::string> interface_commands(const configuration &of, std::uint16_t vlan);

// A line of the difference between two configurations.
struct difference_line {
    char sign;  // '-': in the first alone, '+': in the second alone, ' ': the head of an interface's lines
    std::string text;
};
std::vector<difference_line> difference(const configuration &first, const configuration &second);
// How many of the lines are in one of the two alone.
std::size_t count_changes(const std::vector<difference_line> &lines);

// The commands that make one configuration the other, to be run from global configuration mode on while all that waits
// is in records (kept_opening). Whether the relay is on is changed last.
std::vector<std::string> commands_between(const configuration &now, const configuration &wanted);

}  // namespace ravo::cli

#endif
