// SPDX-License-Identifier: Apache-2.0
// Reading netlink: what messages say, and when the kernel is asked.
#ifndef PLATFORM_LINUX_INVENTORY_INVENTORY_NETLINK_H
#define PLATFORM_LINUX_INVENTORY_INVENTORY_NETLINK_H

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "fault.h"
#include "inventory/inventory_change.h"

struct nlmsghdr;

namespace ravo::platform {

// Reads one message, which lies whole in memory: nlmsg_len bytes, and padding to the next multiple of 4. Returns
// nothing for a message that is not about devices, their VLANs or their IPv4 addresses, and for one that is
// malformed.
std::optional<inventory_change> netlink_parse(const struct nlmsghdr *message);

// Asks the kernel for all devices, VLANs on bridges and IPv4 addresses. *complete: false when devices came and went all
// the while, so that others may be missing. The fault, if any: the reason of failure.
fault netlink_read_all(std::vector<inventory_change> *out, bool *complete);

// Who gets the changes. Called on the event loop.
struct netlink_listener {
    std::function<void(const inventory_change &change)> changed;
    std::function<void(const std::vector<inventory_change> &all)> read_again;  // after changes were lost
    std::function<void()> settled;                                             // no more changes are waiting
};

// Follows changes on the event loop. Changes from the moment of this call on are reported; what existed before is read
// with netlink_read_all, after this call, so that nothing falls between. receive_buffer: bytes the kernel may hold for
// us. The fault, if any: the reason of failure.
fault netlink_follow(netlink_listener listener, int receive_buffer);
void netlink_unfollow();

// Has everything read again, at most a second from now.
void netlink_read_again_soon();

// How often changes were lost and everything was read again.
unsigned long netlink_rereads();

}  // namespace ravo::platform

#endif
