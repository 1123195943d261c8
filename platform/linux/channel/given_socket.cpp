// SPDX-License-Identifier: Apache-2.0
// A socket from outside is asked what it is: its kind, and by the kernel's cookie of its network namespace whether it
// is of ours.
#include "channel/given_socket.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>

#include "base/owners.h"

namespace ravo::platform {

namespace {

template <typename number>
bool has(int fd, int option, number wanted) {
    number found{};
    socklen_t length = sizeof found;
    return ::getsockopt(fd, SOL_SOCKET, option, &found, &length) == 0 && found == wanted;
}

}  // namespace

fault look_at_socket(int fd, int domain, int type) {
    if (!has(fd, SO_DOMAIN, domain) || !has(fd, SO_TYPE, type)) return {"it is another kind of descriptor"};
    const descriptor own(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    std::uint64_t here = 0;
    socklen_t length = sizeof here;
    if (::getsockopt(own.get(), SOL_SOCKET, SO_NETNS_COOKIE, &here, &length) != 0)
        return {std::string("the kernel does not tell its network: ") + std::strerror(errno)};
    if (!has(fd, SO_NETNS_COOKIE, here)) return {"it is of another network namespace"};
    return {};
}

}  // namespace ravo::platform
