// SPDX-License-Identifier: Apache-2.0
// Whoever can write a file that the daemon believes, or can replace it in its folder, rules the daemon. So owner and
// mode of both are looked at, behind symbolic links, and the fault names the command that mends it.
#include "confinement/trusted_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "base/files.h"

namespace ravo::platform {

namespace {

struct malloc_free {
    void operator()(char *text) const { std::free(text); }
};

bool is_ours(uid_t owner, uid_t daemon) {
    return owner == 0 || owner == daemon || owner == geteuid();
}

std::string mode_text(mode_t mode) {
    char text[8];
    std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
    return text;
}

std::string foreign_owner(const std::string &path, const struct stat &status) {
    return path + ": belongs to user " + std::to_string(status.st_uid) +
           ", who may change what this daemon does; chown root " + path;
}

std::string unreadable(const std::string &path) {
    const std::string owner = std::to_string(geteuid());
    return path + ": user " + owner + ", as whom the daemon runs, may not read it; chown " + owner + " " + path;
}

// Who can write: of a group other than root's, or anybody.
fault open_mode(const std::string &path, const struct stat &status) {
    const bool group = (status.st_mode & S_IWGRP) != 0 && status.st_gid != 0;
    const bool others = (status.st_mode & S_IWOTH) != 0;
    if (!group && !others) return {};
    return {path + ": others may write it (mode " + mode_text(status.st_mode) + "); chmod " +
            (group && others ? "go-w " : (group ? "g-w " : "o-w ")) + path};
}

// In a folder with the sticky bit others cannot replace what is not theirs.
fault folder_fault(const std::string &file, uid_t daemon) {
    const std::string folder = folder_of(file);
    struct stat status {};
    if (stat(folder.c_str(), &status) != 0 || (status.st_mode & S_ISVTX) != 0) return {};
    if (!is_ours(status.st_uid, daemon)) return {foreign_owner(folder, status)};
    return open_mode(folder, status);
}

}  // namespace

fault trusted_file_fault(const std::string &path, uid_t daemon) {
    const std::unique_ptr<char, malloc_free> real(realpath(path.c_str(), nullptr));
    if (real == nullptr && errno == EACCES) return {unreadable(path)};
    if (real == nullptr) return {};  // whoever reads it reports why it cannot be found
    const std::string file = real.get();
    struct stat status {};
    if (stat(file.c_str(), &status) != 0) return {};
    if (!S_ISREG(status.st_mode)) return {};  // whoever reads it reports that
    if (!is_ours(status.st_uid, daemon)) return {foreign_owner(file, status)};
    fault wrong = open_mode(file, status);
    if (!wrong) wrong = folder_fault(file, daemon);
    if (!wrong && access(file.c_str(), R_OK) != 0 && errno == EACCES) wrong = {unreadable(file)};
    return wrong;
}

}  // namespace ravo::platform
