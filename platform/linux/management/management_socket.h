// SPDX-License-Identifier: Apache-2.0
// The management socket's file: made, taken over from a daemon that died, never from one that lives.
#ifndef PLATFORM_LINUX_MANAGEMENT_MANAGEMENT_SOCKET_H
#define PLATFORM_LINUX_MANAGEMENT_MANAGEMENT_SOCKET_H

#include <sys/types.h>

#include <string>

#include "fault.h"
#include "management/management_peer.h"

namespace ravo::platform {

// A listening socket and the file that leads to it. Closes the one and removes the other when it goes.
struct management_socket {
    int fd = -1;
    std::string path;
    dev_t device = 0;  // the file's identity, so that only our own is removed
    ino_t inode = 0;

    management_socket() = default;
    management_socket(const management_socket &) = delete;
    management_socket &operator=(const management_socket &) = delete;
    ~management_socket() { close(); }
    void close();
};

// Checks that no living daemon listens on the path. The fault, if any: one line with the reason.
fault management_socket_check(const std::string &path);

// Listens on the path with mode 0660, owned by the viewers' group and open to the administrators' group too. Makes the
// folder when it is missing. Fills *out, or the fault is one line with the reason.
fault management_socket_listen(const std::string &path, const management_groups &groups, management_socket *out);

}  // namespace ravo::platform

#endif
