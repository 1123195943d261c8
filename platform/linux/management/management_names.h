// SPDX-License-Identifier: Apache-2.0
// Names of users and numbers of groups, as the system knows them. It may ask other machines for them, which may not
// answer; so a thread asks, and whoever waits does so for a limited time and then gets what was known before.
#ifndef PLATFORM_LINUX_MANAGEMENT_MANAGEMENT_NAMES_H
#define PLATFORM_LINUX_MANAGEMENT_MANAGEMENT_NAMES_H

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>

#include "fault.h"

namespace ravo::platform {

// The groups whose members may use the daemon, by number; a group that does not exist has no members.
struct management_groups {
    std::optional<gid_t> viewers;
    std::optional<gid_t> admins;
};

struct known_names {
    std::string user;  // name of the user, or the number as text when it has none
    management_groups groups;
    bool groups_known = false;  // false: the system has never answered yet
};

// How the system is asked; tests bring a service of their own.
struct name_service {
    std::function<std::string(uid_t)> user;                                 // empty: no such user
    std::function<std::optional<gid_t>(const std::string &name)> group_id;  // none: no such group
};
name_service system_names();

// Begins to ask for groups of these names. The fault, if any: why there is no thread for it.
fault names_open(const std::string &viewers, const std::string &admins, name_service service);
// Questions that are still open are never answered; a thread that waits for the system is left behind.
void names_close();

// Asks for a user's name and for both groups. done is called from the event loop, once, within about this time. Returns
// false when too many wait already, or there is no memory; done is not called then.
using names_answer = std::function<void(const known_names &names)>;
[[nodiscard]] bool names_ask(uid_t uid, double seconds, names_answer done);

// Waits for both groups, no longer than this many seconds: for the start, when the event loop does not run yet. A group
// that the system has not found by then has no members.
management_groups names_wait(double seconds);

}  // namespace ravo::platform

#endif
