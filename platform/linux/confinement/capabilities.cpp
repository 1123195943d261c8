// SPDX-License-Identifier: Apache-2.0
// The kernel's own calls, since glibc has none for these. Both work on the calling thread alone.
#include "confinement/capabilities.h"

#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace ravo::platform {

namespace {

using sets = std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3>;  // low and high 32 numbers

__user_cap_header_struct this_process() {
    return {.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
}

bool read_sets(sets *out) {
    __user_cap_header_struct who = this_process();
    return syscall(SYS_capget, &who, out->data()) == 0;
}

bool write_sets(const sets &wanted) {
    __user_cap_header_struct who = this_process();
    return syscall(SYS_capset, &who, wanted.data()) == 0;
}

}  // namespace

std::uint64_t capabilities_permitted() {
    sets now{};
    if (!read_sets(&now)) return 0;
    return now[0].permitted | std::uint64_t{now[1].permitted} << 32;
}

int capabilities_keep(std::uint64_t set) {
    const std::uint64_t permitted = capabilities_permitted();
    const std::uint64_t kept = permitted & set;
    // What can be inherited goes, and with it what would be handed on by the ambient set.
    const sets wanted{{{static_cast<__u32>(kept), static_cast<__u32>(kept), 0},
                       {static_cast<__u32>(kept >> 32), static_cast<__u32>(kept >> 32), 0}}};
    sets now{};
    if (read_sets(&now) && kept == permitted && now[0].effective == wanted[0].effective &&
        now[1].effective == wanted[1].effective && now[0].inheritable == 0 && now[1].inheritable == 0)
        return 0;
    return write_sets(wanted) ? 0 : errno;
}

void capabilities_bound(std::uint64_t set) {
    for (unsigned number = 0; prctl(PR_CAPBSET_READ, number, 0, 0, 0) >= 0; ++number)
        if ((set & capability_bit(number)) == 0) (void)prctl(PR_CAPBSET_DROP, number, 0, 0, 0);
}

}  // namespace ravo::platform
