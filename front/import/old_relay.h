// SPDX-License-Identifier: Apache-2.0
// The settings of ISC dhcrelay: its command line, or the variables that Debian's service makes one of.
#ifndef FRONT_IMPORT_OLD_RELAY_H
#define FRONT_IMPORT_OLD_RELAY_H

#include <string>
#include <string_view>
#include <vector>

#include "fault.h"

namespace ravo::moving {

// An option of which there is something to say, with its value where it has one.
struct old_option {
    std::string name;  // "-U"
    std::string value;
};

struct old_relay {
    std::vector<std::string> both;     // -i: devices for clients and servers
    std::vector<std::string> clients;  // -id: for clients alone
    std::vector<std::string> uplinks;  // -iu: for servers alone
    std::vector<std::string> servers;  // addresses and host names
    std::vector<old_option> options;   // those without an equal, in their order
    bool adds_option = false;          // -a
    bool checks_replies = false;       // -D
    std::string policy;                // -m
    unsigned count = 10;               // -c: from this hop count on requests are dropped
};

// Reads a text that is either a file of variables (SERVERS=, INTERFACES=, OPTIONS=) or a command line, which may begin
// with the program's name and follow ExecStart=. The fault, if any: what is wrong and what to do.
fault read_old_relay(std::string_view text, old_relay *out);

}  // namespace ravo::moving

#endif
