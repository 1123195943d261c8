// SPDX-License-Identifier: Apache-2.0
// A platform as small as the relay allows: one VLAN interface, no real sockets, no event loop. What another switch has
// to write is what its three sources hold; main.cpp plays a client and a server against it.
#ifndef MINIMAL_H
#define MINIMAL_H

#include <cstdint>
#include <string>
#include <vector>

namespace minimal {

using bytes = std::vector<std::uint8_t>;

inline constexpr std::uint32_t port_ifindex = 5121;  // the port everything comes in on: module 1, port 1
inline constexpr std::uint16_t vlan = 10;

// commands.cpp: runs the command with this definition, as a parser would with its variable words. Returns the handler's
// result; a text that nothing installed ends the program.
int command(const std::string &text, std::vector<std::string> words = {});

// network.cpp: reports the interface to the relay's hooks, as it comes up.
void interface_up();
// network.cpp: lets a DHCP message to this address (network byte order) come in, and returns what the relay sent for
// it, empty for nothing.
bytes came_in(const bytes &message, std::uint32_t destination);

// main.cpp: what happens once the relay runs.
void exchange();

}  // namespace minimal

#endif
