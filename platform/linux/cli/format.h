// SPDX-License-Identifier: Apache-2.0
// printf into a string.
#ifndef PLATFORM_LINUX_CLI_FORMAT_H
#define PLATFORM_LINUX_CLI_FORMAT_H

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <string>

namespace ravo::cli {

// The formatted text, of any length; empty when the format is broken.
__attribute__((format(printf, 1, 0))) inline std::string format_text(const char *format, va_list arguments) {
    char room[512];
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(room, sizeof room, format, arguments);
    std::string out;
    if (length > 0 && static_cast<std::size_t>(length) < sizeof room) {
        out.assign(room, static_cast<std::size_t>(length));
    } else if (length > 0) {
        out.resize(static_cast<std::size_t>(length));
        std::vsnprintf(out.data(), out.size() + 1, format, again);
    }
    va_end(again);
    return out;
}

}  // namespace ravo::cli

#endif
