// SPDX-License-Identifier: Apache-2.0
// The folder is chosen once, at the start: of the option, else the first that the init system gives. One that cannot be
// written to is as good as none.
#include "process/state_folder.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace ravo::platform {

namespace {

std::string folder_in_use;

std::string folder_of_init_system() {
    const char *const folders = std::getenv("STATE_DIRECTORY");
    const std::string_view all = folders == nullptr ? "" : folders;
    return std::string(all.substr(0, all.find(':')));
}

// Makes the folder when it is missing. Returns 0, or as errno why nothing can be written there.
int make_writable(const std::string &folder) {
    constexpr mode_t mode = 0750;
    if (mkdir(folder.c_str(), mode) != 0 && errno != EEXIST) return errno;
    struct stat status;
    if (stat(folder.c_str(), &status) != 0) return errno;
    if (!S_ISDIR(status.st_mode)) return ENOTDIR;
    return access(folder.c_str(), W_OK | X_OK) == 0 ? 0 : errno;
}

}  // namespace

fault state_open(const std::string &given) {
    folder_in_use.clear();
    std::string folder = given.empty() ? folder_of_init_system() : given;
    while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
    if (folder.empty())
        return {
            "state: no folder is given (--state, or StateDirectory= of the unit): numbers of ports and saved "
            "versions are not remembered"};
    const int failed = make_writable(folder);
    if (failed != 0)
        return {"state: " + folder +
                " cannot be used, numbers of ports and saved versions are not remembered: " + std::strerror(failed)};
    folder_in_use = folder;
    return {};
}

const std::string &state_folder() {
    return folder_in_use;
}

std::string state_path(std::string_view name) {
    return folder_in_use.empty() ? std::string() : folder_in_use + "/" + std::string(name);
}

}  // namespace ravo::platform
