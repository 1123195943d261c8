// SPDX-License-Identifier: Apache-2.0
// The capabilities of this process: what of root's power is left to it.
#ifndef PLATFORM_LINUX_CONFINEMENT_CAPABILITIES_H
#define PLATFORM_LINUX_CONFINEMENT_CAPABILITIES_H

#include <cstdint>

namespace ravo::platform {

// A capability as a bit of a set; number: as in <linux/capability.h>.
constexpr std::uint64_t capability_bit(unsigned number) {
    return std::uint64_t{1} << number;
}

// The permitted set, that is what the process can use; 0 when the kernel does not say.
[[nodiscard]] std::uint64_t capabilities_permitted();

// Gives up for good all that is not in the set: it is taken from the process and from what it could pass on. What it
// does not have it does not get. For a process of one thread. Returns 0, or the reason as errno.
[[nodiscard]] int capabilities_keep(std::uint64_t set);

// From now on no program that the process becomes can get more than the set, as far as the process may say so: an init
// system that starts it without that right has set the bounds itself.
void capabilities_bound(std::uint64_t set);

}  // namespace ravo::platform

#endif
