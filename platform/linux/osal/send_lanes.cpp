// SPDX-License-Identifier: Apache-2.0
// An owner keeps its lane while it is in trouble; when both its lane and the daemon's socket are seen empty it goes
// back to the daemon's. Nobody is judged: who was slow and comes back may fill the daemon's socket again, whereupon it
// gets a lane again and so does everybody else who needs one.
#include "osal/send_lanes.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>

#include <algorithm>

namespace ravo::platform {

namespace {

constexpr std::uint32_t messages_a_look = 64;  // on lanes, between two looks whether their owners still need them

// Whether nothing waits in a socket. A socket that cannot tell is taken for full.
bool is_empty(int fd) {
    int waiting = 0;
    return ::ioctl(fd, SIOCOUTQ, &waiting) == 0 && waiting == 0;
}

std::size_t lane_of(const send_lanes &lanes, std::uint32_t destination) {
    return static_cast<std::size_t>(std::find(lanes.owners.begin(), lanes.owners.end(), destination) -
                                    lanes.owners.begin());
}

void take_away(send_lanes &lanes, std::size_t lane) {
    if (lanes.owners[lane] == 0) return;
    lanes.owners[lane] = 0;
    --lanes.owned;
}

// Takes empty lanes from their owners once the daemon's socket has room again.
void look_around(send_lanes &lanes) {
    if (!is_empty(lanes.common)) return;
    for (std::size_t lane = 0; lane < send_lane_limit; ++lane)
        if (lanes.owners[lane] != 0 && is_empty(lanes.sockets[lane].get())) take_away(lanes, lane);
}

// A lane in which nothing waits: one that is nobody's, a new one, or one whose owner has no need of it now. Returns
// send_lane_limit when there is none.
std::size_t find_empty(send_lanes &lanes) {
    for (std::size_t lane = 0; lane < send_lane_limit; ++lane) {
        if (!lanes.sockets[lane]) lanes.sockets[lane] = lanes.open_another();
        if (!lanes.sockets[lane]) return send_lane_limit;
        if (lanes.owners[lane] == 0 && is_empty(lanes.sockets[lane].get())) return lane;
    }
    for (std::size_t lane = 0; lane < send_lane_limit; ++lane)
        if (is_empty(lanes.sockets[lane].get())) return lane;
    return send_lane_limit;
}

}  // namespace

int lanes_owned_socket(send_lanes &lanes, std::uint32_t destination) {
    const std::size_t lane = lane_of(lanes, destination);
    if (lane == send_lane_limit) return lanes.common;
    const int fd = lanes.sockets[lane].get();
    if (++lanes.looked % messages_a_look == 0) look_around(lanes);
    return fd;
}

int lanes_other_socket(send_lanes &lanes, std::uint32_t destination) {
    if (lane_of(lanes, destination) != send_lane_limit) return -1;
    const std::size_t lane = find_empty(lanes);
    if (lane == send_lane_limit) return -1;
    take_away(lanes, lane);
    lanes.owners[lane] = destination;
    ++lanes.owned;
    return lanes.sockets[lane].get();
}

void lanes_close(send_lanes &lanes) {
    for (std::size_t lane = 0; lane < send_lane_limit; ++lane) {
        take_away(lanes, lane);
        lanes.sockets[lane].reset();
    }
    lanes.common = -1;
    lanes.refused = nullptr;
}

}  // namespace ravo::platform
