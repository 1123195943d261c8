// SPDX-License-Identifier: Apache-2.0
// Time: of the day, and as the event loop needs it.
#ifndef PLATFORM_LINUX_BASE_CLOCK_H
#define PLATFORM_LINUX_BASE_CLOCK_H

#include <time.h>

#include <cstdint>

namespace ravo::platform {

// Microseconds since 1970.
inline std::int64_t wall_clock_us() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

// Milliseconds since some moment, never set back; a few behind, as the kernel last noted it, which makes this as cheap
// as reading a variable.
inline std::uint64_t clock_coarse_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000 + static_cast<std::uint64_t>(now.tv_nsec) / 1000000;
}

// The same in microseconds, exact, for which the processor's clock is read.
inline std::uint64_t clock_exact_us() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000 + static_cast<std::uint64_t>(now.tv_nsec) / 1000;
}

}  // namespace ravo::platform

#endif
