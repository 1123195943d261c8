// SPDX-License-Identifier: Apache-2.0
// The print service. A filtered line costs the comparison of its level; any other is formatted on the stack and handed
// to the log in the pieces it came in.
#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "log/log.h"
#include "log/log_subject.h"
#include "vex_init.h"

namespace {

// The relay's longest lines are dumps of a message's options, well below this.
constexpr std::size_t line_room = 4096;

}  // namespace

int vexprintf(int destination, int reserved1, int level, int reserved2, const char *format, ...) {
    (void)destination;  // one destination on this platform: the log
    (void)reserved1;
    (void)reserved2;
    if (!vex_prints(level)) return 0;
    ravo::platform::log_line_comes(level);
    if (level == ravo::platform::log_level_warning && ravo::platform::log_is_ordinary()) {
        level = ravo::platform::log_level_trace;
        if (!vex_prints(level)) return 0;
    }
    char text[line_room];
    std::uint64_t like = 0;
    va_list arguments;
    va_start(arguments, format);
    const bool whole = format[0] != '\0' && format[std::strlen(format) - 1] == '\n';
    const bool written = !whole || ravo::platform::log_lets_through(level, format, arguments, &like);
    const int formatted = written || like != 0 ? std::vsnprintf(text, sizeof(text), format, arguments) : 0;
    va_end(arguments);
    if (formatted <= 0) return 0;
    const auto length = std::min(static_cast<std::size_t>(formatted), sizeof(text) - 1);
    // A line that was cut still ends where it ended.
    if (length < static_cast<std::size_t>(formatted)) text[length - 1] = '\n';
    if (like != 0)
        ravo::platform::log_held_like(like, level, std::string_view(text, length));
    else
        ravo::platform::log_text(level, std::string_view(text, length));
    return formatted;
}
