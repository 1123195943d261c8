// SPDX-License-Identifier: Apache-2.0
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

}  // namespace ravo::platform
