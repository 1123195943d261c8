// SPDX-License-Identifier: Apache-2.0
// Trace lines and assertions of the relay.
//
// Every diagnostic line goes to the platform's print service with destination 32. The level is tested before any
// argument is evaluated, so a filtered trace costs one branch.
#ifndef RAVO_TRACE_H
#define RAVO_TRACE_H

#include <cstdlib>

#include "vex_init.h"

namespace ravo {

inline constexpr int print_destination = 32;

// Levels of the print service.
inline constexpr int level_start = 0;      // start-up and crash lines, always printed
inline constexpr int level_trace = 101;    // ordinary trace
inline constexpr int level_warning = 103;  // warning
inline constexpr int level_failure = 104;  // failure

// Reports a broken assertion and aborts. text: the expression; module: source module path; function, line: where.
[[noreturn]] inline void assertion_failed(const char *text, const char *module, const char *function, int line) {
    vexprintf(print_destination, 0, level_start, 0, "%s:%d: %s: Assertion '%s' failed.\n", module, line, function,
              text);
    std::abort();
}

}  // namespace ravo

// Prints a line whose format begins with a name and the source line: "%s (%d)...". function: the procedure whose step
// this is, where that is not the function it is in.
#define ravo_trace_as(function, level, format, ...)                                                                 \
    do {                                                                                                            \
        if (__builtin_expect(vex_prints(level), 0))                                                                 \
            vexprintf(ravo::print_destination, 0, level, 0, format, function, __LINE__ __VA_OPT__(, ) __VA_ARGS__); \
    } while (0)

// The same in the name of the function it is in.
#define ravo_trace(level, format, ...) ravo_trace_as(__func__, level, format __VA_OPT__(, ) __VA_ARGS__)

// Prints a line that does not begin with function and line.
#define ravo_print(level, ...)                                                                                    \
    do {                                                                                                          \
        if (__builtin_expect(vex_prints(level), 0)) vexprintf(ravo::print_destination, 0, level, 0, __VA_ARGS__); \
    } while (0)

// Checks a condition in every build. function: the procedure whose step this is; text: the expression as it is
// reported; module: source module path.
#define ravo_assert_as(function, condition, text, module)                           \
    do {                                                                            \
        if (!(condition)) ravo::assertion_failed(text, module, function, __LINE__); \
    } while (0)

// The same in the name of the function it is in.
#define ravo_assert(condition, text, module) ravo_assert_as(__func__, condition, text, module)

#endif
