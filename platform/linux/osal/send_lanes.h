// SPDX-License-Identifier: Apache-2.0
// Room to send in.
//
// What is sent counts against the room of its socket until its device has taken it, or until the neighbour it is for is
// known. A server that does not answer ARP, or a VLAN whose egress is slow, so fills the one socket that everything
// goes out of. Therefore the daemon's socket has company: when it is full, whoever sends next gets a lane, another
// socket like it, as long as one is empty. A destination that is slow fills its own lane and gets no other; what does
// not fit is dropped. All others go on, over the daemon's socket or an empty lane. Lanes are opened when they are
// needed for the first time and then kept, for the kernel takes long to close some.
#ifndef PLATFORM_LINUX_OSAL_SEND_LANES_H
#define PLATFORM_LINUX_OSAL_SEND_LANES_H

#include <sys/types.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>

#include "base/owners.h"
#include "osal.h"

namespace ravo::platform {

inline constexpr std::size_t send_lane_limit = 16;

// The sockets for one kind of destination. A destination is a number other than 0.
struct send_lanes {
    descriptor (*open_another)() = nullptr;       // opens a lane; closed and errno on failure
    void (*count)(std::uint32_t, int) = nullptr;  // counts what is not sent to a destination: reason as errno
    osal_refused refused = nullptr;               // who is told of it later; nullptr: nobody, it is sent at once
    int common = -1;                              // the daemon's own socket, -1: not open
    std::array<std::uint32_t, send_lane_limit> owners{};  // whose each lane is, 0: nobody's
    std::array<descriptor, send_lane_limit> sockets{};    // closed: not opened yet
    std::size_t owned = 0;                                // lanes that are somebody's; mostly none
    std::uint32_t looked = 0;                             // counts the messages to owners of lanes
};

// The socket for the next message to a destination.
int lanes_owned_socket(send_lanes &lanes, std::uint32_t destination);
inline int lanes_socket(send_lanes &lanes, std::uint32_t destination) {
    return lanes.owned == 0 ? lanes.common : lanes_owned_socket(lanes, destination);
}

// Another socket for it when that one was full, or -1: the message is to be dropped.
int lanes_other_socket(send_lanes &lanes, std::uint32_t destination);

// Closes all lanes. The daemon's socket is the daemon's.
void lanes_close(send_lanes &lanes);

// Sends one message: call sends it over the descriptor it is given, without waiting, and returns as send(2) does.
template <typename Call>
ssize_t lanes_send(send_lanes &lanes, std::uint32_t destination, const Call &call) {
    const ssize_t sent = call(lanes_socket(lanes, destination));
    if (sent >= 0 || errno != EAGAIN) [[likely]]
        return sent;
    const int other = lanes_other_socket(lanes, destination);
    if (other >= 0) return call(other);
    errno = EAGAIN;
    return -1;
}

}  // namespace ravo::platform

#endif
