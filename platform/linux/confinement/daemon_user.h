// SPDX-License-Identifier: Apache-2.0
// The user that the daemon is: root's rights over files and processes are given up before a byte from outside is read.
#ifndef PLATFORM_LINUX_CONFINEMENT_DAEMON_USER_H
#define PLATFORM_LINUX_CONFINEMENT_DAEMON_USER_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "fault.h"
#include "process/frame.h"

namespace ravo::platform {

// A folder that the daemon writes into.
struct own_folder {
    std::string path;  // empty: none
    mode_t mode;       // when it is made
};

struct user_change {
    fault wrong{};         // why the daemon cannot start as it was asked to
    std::string remark{};  // for the log, once there is one; empty: nothing to say
};

// The user as whom the daemon runs, or would run: that of the options, if there is one, when root starts it; else that
// of this process.
[[nodiscard]] uid_t user_of_daemon(const frame_options &options);

// Whether the user that was asked for is there: the fault, if not, in one line.
[[nodiscard]] fault user_check(const frame_options &options);

// Makes a process that root started that of the options' user. capabilities: what it takes along, as a set of bits.
// folders: those that the daemon writes into; one that is missing is made, and the user's. A process that is not
// root's stays what it is. The order to die with its starter, if it had one, holds on.
[[nodiscard]] user_change user_become(const frame_options &options, std::uint64_t capabilities,
                                      const std::vector<own_folder> &folders);

}  // namespace ravo::platform

#endif
