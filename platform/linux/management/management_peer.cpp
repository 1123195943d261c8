// The kernel remembers, for each connected Unix socket, the process that called connect: its user and all its groups.
// That decides what a session may do; nothing the peer says about itself does.
#include "management/management_peer.h"

#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

namespace ravo::platform {

namespace {

constexpr int privilege_of_viewers = 2;
constexpr int privilege_of_admins = 31;

constexpr std::size_t first_room = 1024;
constexpr std::size_t most_room = std::size_t{1} << 20;

// Calls a lookup of the user or group database with as much room as it asks for.
template <typename lookup>
bool with_room(lookup call) {
    for (std::vector<char> room(first_room); room.size() <= most_room; room.resize(2 * room.size())) {
        const int error = call(room);
        if (error != ERANGE) return error == 0;
    }
    return false;
}

std::string user_name(uid_t uid) {
    passwd entry{};
    passwd *found = nullptr;
    std::string name = std::to_string(uid);
    (void)with_room([&](std::vector<char> &room) {  // without an answer the number serves
        const int error = getpwuid_r(uid, &entry, room.data(), room.size(), &found);
        if (error == 0 && found != nullptr) name = found->pw_name;
        return error;
    });
    return name;
}

bool read_groups(int fd, std::vector<gid_t> *groups) {
    const std::size_t before = groups->size();
    socklen_t length = 0;
    // Without room the kernel only tells how much is needed.
    if (getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, nullptr, &length) == 0) return true;
    if (errno != ERANGE) return false;
    groups->resize(before + length / sizeof(gid_t));
    return getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups->data() + before, &length) == 0;
}

}  // namespace

std::optional<management_peer> management_peer_of(int fd) {
    ucred credentials{};
    socklen_t length = sizeof(credentials);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) return std::nullopt;
    management_peer peer;
    peer.pid = credentials.pid;
    peer.uid = credentials.uid;
    peer.groups.push_back(credentials.gid);
    if (!read_groups(fd, &peer.groups)) return std::nullopt;
    peer.user = user_name(credentials.uid);
    return peer;
}

std::optional<gid_t> management_group_id(const std::string &name) {
    group entry{};
    group *found = nullptr;
    const bool good = with_room(
        [&](std::vector<char> &room) { return getgrnam_r(name.c_str(), &entry, room.data(), room.size(), &found); });
    if (!good || found == nullptr) return std::nullopt;
    return entry.gr_gid;
}

management_rights management_rights_of(const management_peer &peer, const management_groups &groups) {
    const auto is_member = [&](std::optional<gid_t> gid) {
        return gid && std::find(peer.groups.begin(), peer.groups.end(), *gid) != peer.groups.end();
    };
    if (peer.uid == 0 || is_member(groups.admins)) return {privilege_of_admins, /*may_change=*/true};
    if (is_member(groups.viewers)) return {privilege_of_viewers, /*may_change=*/false};
    return {};
}

}  // namespace ravo::platform
