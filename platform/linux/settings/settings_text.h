// SPDX-License-Identifier: Apache-2.0
// What is configured on one interface, as the commands that make it.
#ifndef PLATFORM_LINUX_SETTINGS_SETTINGS_TEXT_H
#define PLATFORM_LINUX_SETTINGS_SETTINGS_TEXT_H

#include <string>

#include "relay_access.h"

namespace ravo::cli {

// The commands that the relay's own section of a configuration has for an interface: trust and plain servers. Each is a
// line that begins with a blank.
std::string plain_lines(const relay_interface &iface);

// The commands that the relay's own section leaves out: local relay, servers by option 60 and option 61. trust_all:
// "trust-all" comes before, which marks every interface; one that is not trusted then says so.
std::string extra_lines(const relay_interface &iface, bool trust_all);

// Tells whether anything is configured on an interface, and whether it has a server of any kind.
bool has_settings(const relay_interface &iface);
bool has_servers(const relay_interface &iface);

// How many commands there are for an interface.
int count_settings(const relay_interface &iface);

}  // namespace ravo::cli

#endif
