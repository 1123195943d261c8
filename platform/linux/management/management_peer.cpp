// SPDX-License-Identifier: Apache-2.0
// The kernel remembers, for each connected Unix socket, the process that called connect: its user and all its groups.
// That decides what a session may do; nothing the peer says about itself does.
#include "management/management_peer.h"

#include <sys/socket.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <sstream>

#include "base/files.h"

namespace ravo::platform {

namespace {

constexpr int privilege_of_viewers = 2;
constexpr int privilege_of_admins = 31;

// The terminal that a process is controlled from, by its device number in /proc/PID/stat; "-" when it has none or
// nothing can be seen of the process.
std::string terminal_of(pid_t pid) {
    constexpr unsigned first_pts = 136, last_pts = 143, console = 4, serial_begins = 64;
    constexpr std::size_t longest = 4096;
    std::string text;
    // A process that ends meanwhile cannot be read any more.
    if (read_file("/proc/" + std::to_string(pid) + "/stat", longest, &text) != 0) return "-";
    // The second field is the program's name, which may hold anything.
    const std::size_t behind_name = text.rfind(')');
    if (behind_name == std::string::npos) return "-";
    char state = 0;
    int parent = 0, group = 0, session = 0;
    unsigned device = 0;
    std::istringstream fields(text.substr(behind_name + 1));
    if (!(fields >> state >> parent >> group >> session >> device) || device == 0) return "-";
    const unsigned number = gnu_dev_minor(device), kind = gnu_dev_major(device);
    if (kind >= first_pts && kind <= last_pts) return "pts/" + std::to_string((kind - first_pts) * 256 + number);
    if (kind != console) return "tty";
    if (number >= serial_begins) return "ttyS" + std::to_string(number - serial_begins);
    return "tty" + std::to_string(number);
}

bool read_groups(int fd, std::vector<gid_t> *groups) {
    const std::size_t before = groups->size();
    socklen_t length = 0;
    // Without room the kernel only says how much is needed.
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
    peer.terminal = terminal_of(credentials.pid);
    return peer;
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
