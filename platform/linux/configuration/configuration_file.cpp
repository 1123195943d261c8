// SPDX-License-Identifier: Apache-2.0
// Files of commands, read and replaced.
//
// A file is never written in place: its successor is written beside it, brought to the disk, and takes its name in one
// step; then the folder is brought to the disk too. The predecessor is kept in the same way under a name of its own.
// Whoever is killed on the way leaves at most a file ".new" behind, which the next save takes over. Where the path is a
// symbolic link, all this happens where it leads: who links the configuration to a disk wants it there.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "base/files.h"
#include "base/owners.h"
#include "configuration/configuration.h"

namespace ravo::cli {

using platform::behind_links;
using platform::folder_of;
using platform::read_file;
using platform::replace_file;

namespace {

// Each version takes the next one's name, the last one is lost. A process that is killed meanwhile leaves a gap in the
// numbers.
void age_versions(const std::string &path, int versions) {
    for (int number = versions - 1; number >= 1; --number)
        (void)rename((path + "." + std::to_string(number)).c_str(), (path + "." + std::to_string(number + 1)).c_str());
}

int keep_predecessor(const std::string &path, std::string_view text, mode_t mode, int versions) {
    std::string old;
    const int failed = read_file(path, configuration_limit, &old);
    if (failed == ENOENT) return 0;
    if (failed != 0) return failed;
    // Who saves what is the same, or tries again after a failure, loses no version by it.
    std::string kept;
    if (versions > 1 && (old == text || (read_file(path + ".1", configuration_limit, &kept) == 0 && kept == old)))
        return 0;
    age_versions(path, versions);
    return replace_file(path + ".1", old, mode);
}

// What helps when a file could not be written; empty when the error says it.
std::string remedy(const std::string &path, int error) {
    if (error == EACCES || error == EPERM)
        return "; user " + std::to_string(geteuid()) + ", as whom the daemon runs, must own the folder " +
               folder_of(path) + ", and must have had it when the daemon was started";
    if (error == ENOSPC || error == EDQUOT) return "; make room on the disk";
    if (error == EROFS) return "; the file system is read-only";
    if (error == ENOENT) return "; its folder does not exist";
    return {};
}

}  // namespace

fault not_a_file(const std::string &path) {
    struct stat status;
    if (stat(path.c_str(), &status) != 0 || S_ISREG(status.st_mode)) return {};
    return {S_ISDIR(status.st_mode) ? "it is a folder" : "it is a device or the like, not a file"};
}

fault save_file(const std::string &name, std::string_view text, mode_t mode, int versions) {
    const std::string path = behind_links(name);
    const fault wrong = not_a_file(path);
    if (wrong) return {path + " cannot be written: " + wrong.text};
    int failed = keep_predecessor(path, text, mode, versions);
    if (failed != 0) return {path + ".1 cannot be written: " + std::strerror(failed) + remedy(path, failed)};
    failed = replace_file(path, text, mode);
    if (failed != 0) return {path + " cannot be written: " + std::strerror(failed) + remedy(path, failed)};
    return {};
}

fault erase_file(const std::string &name) {
    const std::string path = behind_links(name);
    int failed = unlink(path.c_str()) == 0 ? platform::sync_folder_of(path) : errno;
    if (failed == ENOENT) failed = 0;
    if (failed == 0) return {};
    return {path + " cannot be erased: " + std::strerror(failed)};
}

}  // namespace ravo::cli
