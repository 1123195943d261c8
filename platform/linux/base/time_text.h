// SPDX-License-Identifier: Apache-2.0
// Times as people and programs read them.
#ifndef PLATFORM_LINUX_BASE_TIME_TEXT_H
#define PLATFORM_LINUX_BASE_TIME_TEXT_H

#include <cstdint>
#include <string>

namespace ravo::platform {

// A time in microseconds since 1970: "2024-06-07 08:09:10.123" in the daemon's time zone, and
// "2024-06-07T08:09:10.123456Z".
std::string time_text(std::int64_t time_us);
std::string time_text_utc(std::int64_t time_us);

// A span in whole seconds: "17 s", "3 min", "2 h 5 min", "4 d 3 h"; the two largest units that are not 0.
std::string span_text(std::int64_t seconds);

}  // namespace ravo::platform

#endif
