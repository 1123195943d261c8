// SPDX-License-Identifier: Apache-2.0
// The file is looked at through its descriptor, never by its name again, so that it cannot be changed for another one
// between the look and the use. Its blocks are allocated before it is mapped.
#include "base/mapped_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/owners.h"

namespace ravo::platform {

namespace {

// Returns why a file cannot be used, NULL when it can.
const char *fault_of(int file) {
    struct stat status {};
    if (fstat(file, &status) != 0) return std::strerror(errno);
    if (!S_ISREG(status.st_mode)) return "it is no file";
    if (status.st_uid != geteuid()) return "it belongs to another user; remove it";
    if ((status.st_mode & 07077U) != 0) return "others may use it; remove it";
    return nullptr;
}

}  // namespace

fault map_own_file(const std::string &path, std::size_t size, mapping *mapped) {
    *mapped = mapping();
    const descriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
    if (!file) return {std::strerror(errno)};
    if (const char *reason = fault_of(file.get())) return {reason};
    // A write into a page for which there is no room would end the daemon.
    if (const int failed = posix_fallocate(file.get(), 0, static_cast<off_t>(size)); failed != 0)
        return {std::strerror(failed)};
    *mapped = mapping(file.get(), size);
    if (!*mapped) return {std::strerror(errno)};
    return {};
}

}  // namespace ravo::platform
