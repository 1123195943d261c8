// Who is at the other end of the management socket, and what they may do.
#ifndef PLATFORM_LINUX_MANAGEMENT_MANAGEMENT_PEER_H
#define PLATFORM_LINUX_MANAGEMENT_MANAGEMENT_PEER_H

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ravo::platform {

// The process that connected, as the kernel saw it then.
struct management_peer {
    pid_t pid = 0;
    uid_t uid = 0;
    std::vector<gid_t> groups;  // its primary group and the others
    std::string user;           // name, or the number as text when it has none
};

// Reads the peer of a connected Unix socket. Returns nothing when the kernel does not tell.
std::optional<management_peer> management_peer_of(int fd);

// The groups whose members may use the daemon, by number; a group that does not exist has no members.
struct management_groups {
    std::optional<gid_t> viewers;
    std::optional<gid_t> admins;
};

// Looks up a group's number.
std::optional<gid_t> management_group_id(const std::string &name);

struct management_rights {
    int privilege = 0;        // highest that a session can get, 0: none at all
    bool may_change = false;  // false: show commands only
};

// Root and administrators may do everything, viewers may look, anyone else nothing.
management_rights management_rights_of(const management_peer &peer, const management_groups &groups);

}  // namespace ravo::platform

#endif
