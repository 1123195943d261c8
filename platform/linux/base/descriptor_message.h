// SPDX-License-Identifier: Apache-2.0
// Descriptors that go to another process with a message of a local socket.
#ifndef PLATFORM_LINUX_BASE_DESCRIPTOR_MESSAGE_H
#define PLATFORM_LINUX_BASE_DESCRIPTOR_MESSAGE_H

#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <span>
#include <vector>

#include "base/owners.h"

namespace ravo::platform {

// Room for a control message with so many descriptors. It lasts as long as the message that points into it.
template <std::size_t Count>
struct alignas(cmsghdr) descriptor_room {
    std::array<std::byte, CMSG_SPACE(Count * sizeof(int))> bytes{};
};

// Has a message use this room for its control message, to be sent or received.
template <std::size_t Count>
void use_room(msghdr &message, descriptor_room<Count> &room) {
    message.msg_control = room.bytes.data();
    message.msg_controllen = room.bytes.size();
}

// Puts descriptors, as many as there is room for, into the control message of a message that uses a room. They stay the
// caller's.
void put_descriptors(msghdr &message, std::span<const int> fds);

// Takes what came with a message, whatever it is, so that nothing stays open unnoticed.
std::vector<descriptor> take_descriptors(msghdr &message);

}  // namespace ravo::platform

#endif
