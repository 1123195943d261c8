// SPDX-License-Identifier: Apache-2.0
// Descriptors travel as ancillary data of a message (unix(7), SCM_RIGHTS). What comes is owned at once, so that nothing
// a peer sends can leak, however much it is.
#include "base/descriptor_message.h"

#include <cstring>

namespace ravo::platform {

void put_descriptors(msghdr &message, std::span<const int> fds) {
    cmsghdr *header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(fds.size_bytes());
    std::memcpy(CMSG_DATA(header), fds.data(), fds.size_bytes());
}

std::vector<descriptor> take_descriptors(msghdr &message) {
    std::vector<descriptor> taken;
    for (cmsghdr *header = CMSG_FIRSTHDR(&message); header != nullptr; header = CMSG_NXTHDR(&message, header)) {
        if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS) continue;
        for (std::size_t at = 0; CMSG_LEN(at + sizeof(int)) <= header->cmsg_len; at += sizeof(int)) {
            int fd = -1;
            std::memcpy(&fd, CMSG_DATA(header) + at, sizeof fd);
            taken.emplace_back(fd);
        }
    }
    return taken;
}

}  // namespace ravo::platform
