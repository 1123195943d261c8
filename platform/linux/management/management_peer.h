// SPDX-License-Identifier: Apache-2.0
// Who is at the other end of the management socket, and what they may do.
#ifndef PLATFORM_LINUX_MANAGEMENT_MANAGEMENT_PEER_H
#define PLATFORM_LINUX_MANAGEMENT_MANAGEMENT_PEER_H

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "management/management_names.h"

namespace ravo::platform {

// The process that connected, as the kernel saw it then.
struct management_peer {
    pid_t pid = 0;
    uid_t uid = 0;
    std::vector<gid_t> groups;  // its primary group and the others
    std::string user;           // name, or the number as text when it has none
    std::string terminal;       // "pts/0", or "-" without one
};

// Reads the peer of a connected Unix socket, but not its user's name. Returns nothing, and errno, when the kernel
// refuses that.
std::optional<management_peer> management_peer_of(int fd);

struct management_rights {
    int privilege = 0;        // highest that a session can get, 0: none at all
    bool may_change = false;  // false: show commands only
};

// Root and administrators may do everything, viewers may look, anyone else nothing.
management_rights management_rights_of(const management_peer &peer, const management_groups &groups);

}  // namespace ravo::platform

#endif
