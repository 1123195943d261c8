// SPDX-License-Identifier: Apache-2.0
// Who starts the daemon as root wants it to serve, so what is missing for the change is said and not insisted upon,
// unless the user was asked for by name. Under an init system that starts it as its own user already there is nothing
// to do.
#include "confinement/daemon_user.h"

#include <grp.h>
#include <linux/capability.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <optional>

#include "confinement/capabilities.h"

namespace ravo::platform {

namespace {

struct daemon_user {
    uid_t uid;
    gid_t gid;
    std::vector<gid_t> groups;
};

std::string reason_of(const std::string &what) {
    return what + ": " + strerrordesc_np(errno);
}

// All groups of the user, and that of those who may look, to whom the management socket is given.
std::vector<gid_t> groups_of(const passwd &entry) {
    std::vector<gid_t> groups(64);
    int count = static_cast<int>(groups.size());
    if (getgrouplist(entry.pw_name, entry.pw_gid, groups.data(), &count) < 0) count = 0;
    groups.resize(static_cast<std::size_t>(count));
    if (const group *found = getgrnam("ravo")) groups.push_back(found->gr_gid);
    return groups;
}

// Whoever does not find the user finds in errno why; 0: there is none.
std::optional<daemon_user> find_user(const std::string &name) {
    errno = 0;
    const passwd *entry = getpwnam(name.c_str());
    if (entry == nullptr) return std::nullopt;
    const passwd found = *entry;  // its texts stay until the next look-up of a user
    return daemon_user{found.pw_uid, found.pw_gid, groups_of(found)};
}

// Tells the errors of a look-up that failed from those that mean that there is no such user.
bool is_failure(int error) {
    return error == EINTR || error == EIO || error == EMFILE || error == ENFILE || error == ENOMEM || error == EAGAIN;
}

bool may_change_user() {
    constexpr std::uint64_t needed = capability_bit(CAP_SETUID) | capability_bit(CAP_SETGID);
    return (capabilities_permitted() & needed) == needed;
}

// One that is there belongs to who made it; what cannot be made is reported by who needs it. The mask of the process
// must not make it narrower: members of the groups have to get through.
fault make_folder(const own_folder &folder, const daemon_user *owner) {
    const char *path = folder.path.c_str();
    if (folder.path.empty() || mkdir(path, folder.mode) != 0) return {};
    if (chmod(path, folder.mode) != 0) return {reason_of(folder.path + ": cannot set the folder's mode")};
    if (owner == nullptr || chown(path, owner->uid, owner->gid) == 0) return {};
    return {reason_of(folder.path + ": cannot give it to its user")};
}

fault make_folders(const std::vector<own_folder> &folders, const daemon_user *owner) {
    for (const own_folder &folder : folders) {
        fault wrong = make_folder(folder, owner);
        if (wrong) return wrong;
    }
    return {};
}

// A starter that died meanwhile can give no sign any more.
fault die_with_starter(int order, pid_t starter) {
    if (order == 0) return {};
    if (prctl(PR_SET_PDEATHSIG, order, 0, 0, 0) != 0)
        return {reason_of("cannot keep the order to die with its starter")};
    if (getppid() != starter) (void)raise(order);
    return {};
}

fault change_to(const daemon_user &user, std::uint64_t capabilities) {
    int order = 0;
    const pid_t starter = getppid();
    (void)prctl(PR_GET_PDEATHSIG, &order, 0, 0, 0);
    if (prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0) != 0) return {reason_of("cannot keep its capabilities")};
    capabilities_bound(capabilities);
    if (setgroups(user.groups.size(), user.groups.data()) != 0) return {reason_of("cannot take its groups")};
    if (setresgid(user.gid, user.gid, user.gid) != 0) return {reason_of("cannot take its group")};
    if (setresuid(user.uid, user.uid, user.uid) != 0) return {reason_of("cannot become it")};
    if (const int failed = capabilities_keep(capabilities); failed != 0)
        return {std::string("cannot keep its capabilities: ") + strerrordesc_np(failed)};
    // What belongs to the process in /proc is the user's own again, as when an init system had started it.
    if (prctl(PR_SET_DUMPABLE, 1, 0, 0, 0) != 0) return {reason_of("cannot have its own entry in /proc")};
    return die_with_starter(order, starter);
}

// Why the change is not made.
fault obstacle(const frame_options &options, const std::optional<daemon_user> &user) {
    if (!user) return {"there is no user \"" + options.user + "\""};
    if (may_change_user()) return {};
    return {"it has no capability to become user \"" + options.user + "\""};
}

}  // namespace

uid_t user_of_daemon(const frame_options &options) {
    const uid_t now = geteuid();
    if (now != 0) return now;
    const std::optional<daemon_user> user = find_user(options.user);
    return user ? user->uid : now;
}

fault user_check(const frame_options &options) {
    if (!options.user_given || find_user(options.user)) return {};
    return {"option --user: there is no user \"" + options.user + "\""};
}

user_change user_become(const frame_options &options, std::uint64_t capabilities,
                        const std::vector<own_folder> &folders) {
    const bool is_root = geteuid() == 0;
    const std::optional<daemon_user> user = is_root || options.user_given ? find_user(options.user) : std::nullopt;
    // Nobody stays root because somebody could not be looked up.
    if (is_root && !user && is_failure(errno))
        return {.wrong = {reason_of("cannot look up user \"" + options.user + "\"")}};
    const bool stays = (!is_root && !options.user_given) || (user && user->uid == geteuid());
    if (stays) return {.wrong = make_folders(folders, nullptr)};
    if (!is_root) return {.wrong = {"option --user: only root can become user \"" + options.user + "\""}};
    const fault missing = obstacle(options, user);
    if (missing && options.user_given) return {.wrong = {"option --user: " + missing.text}};
    if (missing)
        return {.wrong = make_folders(folders, nullptr),
                .remark = missing.text + ": ravod keeps root's rights over files; see --user in ravod(8)"};
    fault wrong = make_folders(folders, &*user);
    if (!wrong) wrong = change_to(*user, capabilities);
    if (wrong) wrong = {"user \"" + options.user + "\": " + wrong.text};
    return {.wrong = std::move(wrong)};
}

}  // namespace ravo::platform
