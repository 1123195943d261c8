// SPDX-License-Identifier: Apache-2.0
// A socket file outlives the process that made it, so a file says nothing: whether a daemon is behind it shows only
// when one connects. Nobody behind it: the file is removed and made anew. Two daemons that start at once would both
// find nobody there; the folder is locked while one looks and listens.
//
// Who may connect is the file's mode, group and access list; what they may do then is decided from the peer's
// credentials (management_peer.cpp). The group owns one entry of the mode, viewers, so administrators get theirs
// through an access list, which the kernel takes as an extended attribute.
#include "management/management_socket.h"

#include <fcntl.h>
#include <linux/posix_acl.h>
#include <linux/posix_acl_xattr.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "base/files.h"
#include "base/owners.h"
#include "log/log.h"

namespace ravo::platform {

namespace {

constexpr int backlog = 64;
constexpr mode_t folder_mode = 0755;
constexpr mode_t socket_mode = 0660;
constexpr mode_t lock_mode = 0600;
constexpr std::chrono::milliseconds lock_wait{20};
constexpr int lock_tries = 100;

std::string failure(const std::string &path, const std::string &what, int error) {
    return path + ": " + what + ": " + strerrordesc_np(error);
}

constexpr const char *choose_another = "; choose another socket with --management";

bool fill_address(const std::string &path, sockaddr_un *address) {
    if (path.empty() || path.size() >= sizeof(address->sun_path)) return false;
    address->sun_family = AF_UNIX;
    std::memcpy(address->sun_path, path.c_str(), path.size() + 1);
    return true;
}

std::string wrong_path(const std::string &path) {
    return path + ": the management socket's path must have 1 to " + std::to_string(sizeof(sockaddr_un::sun_path) - 1) +
           " bytes" + choose_another;
}

std::string living(const std::string &path, int probe) {
    ucred listener{};
    socklen_t length = sizeof(listener);
    std::string who = "another ravod";
    // Connecting, one sees the credentials of whoever listens.
    if (getsockopt(probe, SOL_SOCKET, SO_PEERCRED, &listener, &length) == 0 && listener.pid != 0)
        who += " (process " + std::to_string(listener.pid) + ")";
    return path + ": " + who + " is listening on this management socket; stop it" + choose_another;
}

enum class file_state { none, stale, taken };

// Finds out whether anybody listens behind the file. *why: set when it is taken or cannot be used.
file_state probe_file(const std::string &path, fault *why) {
    sockaddr_un address{};
    if (!fill_address(path, &address)) {
        *why = {wrong_path(path)};
        return file_state::taken;
    }
    struct stat found {};
    if (lstat(path.c_str(), &found) != 0) {
        // A folder that is missing will be made; any other trouble shows when the socket is.
        return file_state::none;
    }
    if (!S_ISSOCK(found.st_mode)) {
        *why = {path + ": is no socket; remove it" + choose_another};
        return file_state::taken;
    }
    const descriptor probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (probe.get() >= 0 && connect(probe.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) {
        if (errno == ECONNREFUSED) return file_state::stale;
        if (errno == ENOENT) return file_state::none;
        // A listener whose queue is full lives as well.
        if (errno != EAGAIN) {
            *why = {failure(path, "cannot tell whether a ravod is listening", errno) + choose_another};
            return file_state::taken;
        }
    }
    *why = {living(path, probe.get())};
    return file_state::taken;
}

fault make_folder(const std::string &folder) {
    if (mkdir(folder.c_str(), folder_mode) == 0) {
        // The mask of the process must not make it narrower: members of the groups have to get in.
        if (chmod(folder.c_str(), folder_mode) != 0) return {failure(folder, "cannot set the folder's mode", errno)};
        return {};
    }
    if (errno == EEXIST) return {};
    return {failure(folder, "cannot make the management socket's folder", errno) + choose_another};
}

// A file beside the socket that only our user can open: who could open it could keep us from starting. It is there
// while somebody looks and listens, and goes with the lock.
class start_lock {
  public:
    explicit start_lock(const std::string &socket) : path_(socket + ".lock") {}
    start_lock(const start_lock &) = delete;
    start_lock &operator=(const start_lock &) = delete;
    ~start_lock() {
        if (file_) unlink(path_.c_str());
    }

    // The fault, if any: the reason why there is no lock.
    fault take() {
        for (int i = 0; i < lock_tries; ++i) {
            fault wrong;
            if (try_once(&wrong) || wrong) return wrong;
            std::this_thread::sleep_for(lock_wait);
        }
        return {path_ + ": another ravod that is starting keeps its lock there" + choose_another};
    }

  private:
    // Returns false with a reason when there can be no lock, and without one when somebody else has it.
    bool try_once(fault *why) {
        descriptor made(open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, lock_mode));
        struct stat ours {};
        if (!made || fstat(made.get(), &ours) != 0) {
            *why = {failure(path_, "cannot make the lock of the management socket", errno) + choose_another};
            return false;
        }
        if (ours.st_uid != geteuid() || !S_ISREG(ours.st_mode)) {
            *why = {path_ + ": is somebody else's, and no lock for the management socket; remove it" + choose_another};
            return false;
        }
        struct stat there {};
        // Whoever had the lock before has taken the file away with it.
        const bool locked = flock(made.get(), LOCK_EX | LOCK_NB) == 0 && stat(path_.c_str(), &there) == 0 &&
                            there.st_dev == ours.st_dev && there.st_ino == ours.st_ino;
        if (locked) file_ = std::move(made);
        return locked;
    }

    std::string path_;
    descriptor file_;
};

// The access list: what the mode says, and the administrators' group beside it.
std::vector<char> access_list(gid_t admins) {
    struct entry {
        std::uint16_t tag;
        std::uint16_t permissions;
        std::uint32_t id;
    };
    constexpr std::uint16_t read_write = ACL_READ | ACL_WRITE;
    constexpr std::uint32_t nobody = ACL_UNDEFINED_ID;
    const entry entries[] = {{ACL_USER_OBJ, read_write, nobody},
                             {ACL_GROUP_OBJ, read_write, nobody},
                             {ACL_GROUP, read_write, admins},
                             {ACL_MASK, read_write, nobody},
                             {ACL_OTHER, 0, nobody}};
    // The kernel's layout is little-endian, whatever the host.
    std::vector<char> list;
    const auto put = [&list](std::uint32_t value, int length) {
        for (int i = 0; i < length; ++i) list.push_back(static_cast<char>(value >> (8 * i)));
    };
    put(POSIX_ACL_XATTR_VERSION, 4);
    for (const entry &e : entries) {
        put(e.tag, 2);
        put(e.permissions, 2);
        put(e.id, 4);
    }
    return list;
}

// A group that cannot be let in is named in the log; root can still use the socket.
void open_to_groups(const std::string &path, const management_groups &groups) {
    struct stat file {};
    const bool given = groups.viewers && stat(path.c_str(), &file) == 0 && file.st_gid == *groups.viewers;
    if (groups.viewers && !given && chown(path.c_str(), static_cast<uid_t>(-1), *groups.viewers) != 0)
        log_line(log_level_warning, "management: %s", failure(path, "cannot give it to its group", errno).c_str());
    if (!groups.admins) return;
    const std::vector<char> list = access_list(*groups.admins);
    if (setxattr(path.c_str(), "system.posix_acl_access", list.data(), list.size(), 0) == 0) return;
    log_line(log_level_warning, "management: %s; administrators need to be members of the viewers' group too",
             failure(path, "cannot open it to the administrators' group", errno).c_str());
}

fault bind_and_listen(const std::string &path, const management_groups &groups, management_socket *out) {
    sockaddr_un address{};
    (void)fill_address(path, &address);  // probe_file has judged the path
    descriptor made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (made.get() < 0) return {failure(path, "cannot make the management socket", errno)};
    if (bind(made.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0)
        return {failure(path, "cannot make the management socket", errno) + choose_another};
    // Nobody can connect before listen, so nobody gets in under a wider mode.
    struct stat file {};
    if (chmod(path.c_str(), socket_mode) != 0 || lstat(path.c_str(), &file) != 0)
        return {failure(path, "cannot set the management socket's mode", errno)};
    open_to_groups(path, groups);
    if (listen(made.get(), backlog) != 0) return {failure(path, "cannot listen on the management socket", errno)};
    out->fd = made.release();
    out->path = path;
    out->device = file.st_dev;
    out->inode = file.st_ino;
    return {};
}

}  // namespace

void management_socket::close() {
    if (fd < 0) return;
    struct stat file {};
    // A file of this name that is not ours any more belongs to another daemon.
    if (lstat(path.c_str(), &file) == 0 && file.st_dev == device && file.st_ino == inode) unlink(path.c_str());
    ::close(fd);
    fd = -1;
}

fault management_socket_check(const std::string &path) {
    fault wrong;
    (void)probe_file(path, &wrong);  // the fault says it all
    return wrong;
}

fault management_socket_listen(const std::string &path, const management_groups &groups, management_socket *out) {
    sockaddr_un address{};
    if (!fill_address(path, &address)) return {wrong_path(path)};
    const std::string folder = folder_of(path);
    fault wrong = make_folder(folder);
    if (wrong) return wrong;
    start_lock lock(path);
    wrong = lock.take();
    if (wrong) return wrong;
    switch (probe_file(path, &wrong)) {
        case file_state::taken:
            return wrong;
        case file_state::stale:
            if (unlink(path.c_str()) != 0) return {failure(path, "cannot remove the stale management socket", errno)};
            break;
        case file_state::none:
            break;
    }
    return bind_and_listen(path, groups, out);
}

}  // namespace ravo::platform
