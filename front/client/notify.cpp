// SPDX-License-Identifier: Apache-2.0
// The service manager listens on a datagram socket that it names in NOTIFY_SOCKET: a path, or with "@" in front a name
// in the abstract space. A state is one datagram, as sd_notify(3) describes it, so no library is needed.
#include "notify.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace ravo::client {

void notify_manager(std::string_view state) {
    const char *path = std::getenv("NOTIFY_SOCKET");
    sockaddr_un to{};
    if (path == nullptr || (*path != '/' && *path != '@') || std::strlen(path) >= sizeof to.sun_path) return;
    to.sun_family = AF_UNIX;
    const std::size_t length = std::strlen(path);
    std::copy_n(path, length, to.sun_path);
    if (*path == '@') to.sun_path[0] = '\0';
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return;
    // Nobody waits for the answer: a manager that cannot take it learns nothing.
    (void)!sendto(fd, state.data(), state.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&to),
                  static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length));
    close(fd);
}

}  // namespace ravo::client
