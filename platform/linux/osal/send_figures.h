// SPDX-License-Identifier: Apache-2.0
// What could not be sent, by where it was to go.
#ifndef PLATFORM_LINUX_OSAL_SEND_FIGURES_H
#define PLATFORM_LINUX_OSAL_SEND_FIGURES_H

#include <cstdint>
#include <vector>

namespace ravo::platform {

// Messages that were dropped instead of sent.
struct send_figures {
    std::uint64_t no_room = 0;  // the kernel had no room: the neighbour does not answer, or the device is too slow
    std::uint64_t failed = 0;   // any other reason
};

struct send_row {
    std::uint32_t destination = 0;  // a server, network byte order; or the switch's number of an interface
    send_figures figures;
};

// Of one server (network byte order), or of one interface (the switch's number); zeros when all could be sent.
send_figures send_figures_of_server(std::uint32_t server);
send_figures send_figures_of_interface(std::uint32_t switch_ifindex);

// The servers and the interfaces to which something could not be sent, in the order in which that happened first.
std::vector<send_row> send_figures_servers();
std::vector<send_row> send_figures_interfaces();

void send_figures_clear();

// ---- For those who send ----

// Counts a message that was not sent. reason: as errno. Nothing is allocated; past the first 4096 destinations it is
// not counted.
void send_count_server(std::uint32_t server, int reason);
void send_count_interface(std::uint32_t switch_ifindex, int reason);

}  // namespace ravo::platform

#endif
