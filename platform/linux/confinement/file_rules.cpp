// SPDX-License-Identifier: Apache-2.0
// Landlock: rules that any process may lay upon itself. Kernels differ in what they know of it, so that each right is
// asked for from the version on that has it.
#include "confinement/file_rules.h"

#include <fcntl.h>
#include <linux/landlock.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "base/files.h"
#include "base/owners.h"

namespace ravo::platform {

namespace {

// The kernel's record as of version 6; older headers end earlier, and older kernels are given less of it.
struct ruleset_record {
    std::uint64_t files;
    std::uint64_t network;
    std::uint64_t scoped;
};

constexpr std::uint64_t access_truncate = 1U << 14;   // version 3
constexpr std::uint64_t network_all_tcp = 3;          // version 4: bind, connect
constexpr std::uint64_t access_ioctl_dev = 1U << 15;  // version 5
constexpr std::uint64_t scope_signal = 1U << 1;       // version 6

constexpr std::uint64_t reading = LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_READ_DIR;
constexpr std::uint64_t writing = LANDLOCK_ACCESS_FS_WRITE_FILE | LANDLOCK_ACCESS_FS_REMOVE_FILE |
                                  LANDLOCK_ACCESS_FS_MAKE_REG | LANDLOCK_ACCESS_FS_MAKE_SOCK;
constexpr std::uint64_t never = LANDLOCK_ACCESS_FS_EXECUTE | LANDLOCK_ACCESS_FS_REMOVE_DIR |
                                LANDLOCK_ACCESS_FS_MAKE_DIR | LANDLOCK_ACCESS_FS_MAKE_CHAR |
                                LANDLOCK_ACCESS_FS_MAKE_FIFO | LANDLOCK_ACCESS_FS_MAKE_BLOCK |
                                LANDLOCK_ACCESS_FS_MAKE_SYM;

// Libraries, users and groups and the services that know them, time zones, devices, and the kernel's files.
constexpr const char *system_folders[] = {
    "/etc", "/usr", "/lib", "/lib64", "/proc", "/sys", "/run", "/var/lib/sss", "/var/lib/extrausers"};
constexpr const char *system_devices[] = {"/dev/null", "/dev/urandom"};

ruleset_record wished_rights(int version) {
    ruleset_record all{.files = reading | writing | never, .network = 0, .scoped = 0};
    if (version >= 3) all.files |= access_truncate;
    if (version >= 4) all.network = network_all_tcp;
    if (version >= 5) all.files |= access_ioctl_dev;
    if (version >= 6) all.scoped = scope_signal;
    return all;
}

std::size_t record_size(int version) {
    if (version >= 6) return sizeof(ruleset_record);
    return version >= 4 ? sizeof(std::uint64_t) * 2 : sizeof(std::uint64_t);
}

// A place that is not there has nothing to be touched. Returns 0 or the reason.
int allow(int ruleset, const std::string &place, std::uint64_t rights) {
    const descriptor at(open(place.c_str(), O_PATH | O_CLOEXEC));
    if (!at) return 0;
    struct stat status {};
    if (fstat(at.get(), &status) != 0) return errno;
    if (!S_ISDIR(status.st_mode))
        rights &= LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_WRITE_FILE | access_truncate;
    landlock_path_beneath_attr rule{};
    rule.allowed_access = rights;
    rule.parent_fd = at.get();
    return syscall(SYS_landlock_add_rule, ruleset, LANDLOCK_RULE_PATH_BENEATH, &rule, 0) == 0 ? 0 : errno;
}

// Returns 0 or the reason.
int allow_all(int ruleset, const file_wishes &wishes, std::uint64_t known) {
    for (const char *folder : system_folders)
        if (const int failed = allow(ruleset, folder, reading)) return failed;
    for (const char *device : system_devices)
        if (const int failed = allow(ruleset, device, (reading | writing | access_truncate) & known)) return failed;
    for (const std::string &folder : wishes.read)
        if (const int failed = allow(ruleset, folder, reading)) return failed;
    for (const std::string &folder : wishes.written)
        if (const int failed = allow(ruleset, folder, (reading | writing | access_truncate) & known)) return failed;
    return 0;
}

fault failure(int reason) {
    return {std::string("cannot lay down which files it may touch: ") + std::strerror(reason)};
}

}  // namespace

fault file_rules_install(const file_wishes &wishes) {
    const long version = syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
    if (version < 1) return {};  // this kernel has none, or it is switched off
    const ruleset_record rights = wished_rights(static_cast<int>(version));
    const descriptor ruleset(
        static_cast<int>(syscall(SYS_landlock_create_ruleset, &rights, record_size(static_cast<int>(version)), 0)));
    if (!ruleset) return failure(errno);
    if (const int failed = allow_all(ruleset.get(), wishes, rights.files)) return failure(failed);
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return failure(errno);
    if (syscall(SYS_landlock_restrict_self, ruleset.get(), 0) != 0) return failure(errno);
    return {};
}

}  // namespace ravo::platform
