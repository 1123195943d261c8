// The time of day.
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

}  // namespace ravo::platform

#endif
