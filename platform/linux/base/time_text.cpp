// SPDX-License-Identifier: Apache-2.0
// Microseconds since 1970 as people read them in this machine's time zone, and as programs read them in UTC.
#include "base/time_text.h"

#include <cstdio>
#include <ctime>

namespace ravo::platform {

namespace {

constexpr std::int64_t second = 1000000;

std::string when(std::int64_t time_us, bool utc) {
    time_t seconds = static_cast<time_t>(time_us / second);
    struct tm parts {};
    if (utc)
        gmtime_r(&seconds, &parts);
    else
        localtime_r(&seconds, &parts);
    char text[64];
    const std::size_t size = strftime(text, sizeof text, utc ? "%Y-%m-%dT%H:%M:%S" : "%Y-%m-%d %H:%M:%S", &parts);
    char fraction[16];
    if (utc)
        std::snprintf(fraction, sizeof fraction, ".%06dZ", static_cast<int>(time_us % second));
    else
        std::snprintf(fraction, sizeof fraction, ".%03d", static_cast<int>(time_us % second / 1000));
    return std::string(text, size) + fraction;
}

}  // namespace

std::string time_text(std::int64_t time_us) {
    return when(time_us, /*utc=*/false);
}

std::string time_text_utc(std::int64_t time_us) {
    return when(time_us, /*utc=*/true);
}

std::string span_text(std::int64_t seconds) {
    struct unit {
        std::int64_t seconds;
        const char *name;
    };
    constexpr unit units[] = {{86400, "d"}, {3600, "h"}, {60, "min"}, {1, "s"}};
    std::string out;
    int parts = 0;
    for (const unit &each : units) {
        const std::int64_t count = seconds / each.seconds;
        seconds %= each.seconds;
        if (count == 0 || parts == 2) continue;
        out += (out.empty() ? "" : " ") + std::to_string(count) + " " + each.name;
        ++parts;
    }
    return out.empty() ? "0 s" : out;
}

}  // namespace ravo::platform
