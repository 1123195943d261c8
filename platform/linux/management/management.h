// SPDX-License-Identifier: Apache-2.0
// The management socket: sessions of shells and front ends.
#ifndef PLATFORM_LINUX_MANAGEMENT_MANAGEMENT_H
#define PLATFORM_LINUX_MANAGEMENT_MANAGEMENT_H

#include <cstdint>
#include <string>

#include "fault.h"

struct cli_tree;

namespace ravo::platform {

// How many sessions there may be.
struct management_limits {
    std::uint32_t sessions = 64;      // at once; the last of them are kept for root and administrators
    std::uint32_t per_user = 16;      // of a user other than root
    std::uint32_t idle_minutes = 30;  // after which a session ends that nobody uses, 0: never
};

// Sets them, before or while the socket is open. Sessions that are open stay, whatever their number.
void management_limit(const management_limits &limits);

// Listens on a Unix socket. A stale socket file is taken over, one with a living daemon behind it is refused. The
// fault, if any: one line with the reason.
fault management_open(const std::string &path);

// Checks that no living daemon listens on the path. The fault, if any: one line with the reason.
fault management_check(const std::string &path);

// The commands on sessions.
void install_management_commands(cli_tree *tree);

// Ends all sessions (after their output is sent as far as it can be without waiting) and removes the socket file.
void management_close();

}  // namespace ravo::platform

#endif
