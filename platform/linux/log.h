// The platform's log: where the print service and the platform's own lines go.
#ifndef PLATFORM_LINUX_LOG_H
#define PLATFORM_LINUX_LOG_H

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace ravo::platform {

// Levels, as in vex_init.h.
inline constexpr int log_level_start = 0;
inline constexpr int log_level_trace = 101;
inline constexpr int log_level_warning = 103;
inline constexpr int log_level_error = 104;

// Chooses where lines go ("stderr", "syslog" or a file's path) and the lowest level printed there. Returns an empty
// string, or the reason why the file cannot be opened.
std::string log_open(const std::string &target, int threshold);
void log_close();

// Changes the lowest level printed. Trace listeners (below) keep their own.
void log_set_threshold(int threshold);
int log_threshold();

// Turns "error", "warning", "trace" into a threshold; 0 for any other word.
int log_level_of(std::string_view word);
std::string_view log_word_of(int threshold);

// Writes one line of the platform's own. The line end is added.
void log_line(int level, const char *format, ...) __attribute__((format(printf, 2, 3)));

// Live listeners, for sessions that asked to see the log: called with each whole line, without its line end, of at
// least the threshold. Returns an id for log_remove_listener. A listener must not log.
using log_listener = std::function<void(std::string_view line)>;
int log_add_listener(int threshold, log_listener listener);
void log_remove_listener(int id);

// The last lines written, oldest first (at most 1000 are kept, with their time of day).
std::vector<std::string> log_recent();

}  // namespace ravo::platform

#endif
