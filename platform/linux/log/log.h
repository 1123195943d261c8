// The platform's log: where the print service and the platform's own lines go.
#ifndef PLATFORM_LINUX_LOG_LOG_H
#define PLATFORM_LINUX_LOG_LOG_H

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
// string, or the reason why the file cannot be opened (the log then stays as it was).
std::string log_open(const std::string &target, int threshold);
// Goes back to standard error and the default level; forgets listeners and kept lines.
void log_close();
// Opens the log file again under its name, after it was moved away. Without a log file it does nothing. Returns an
// empty string, or the reason why it cannot be opened (the old file then stays in use).
std::string log_reopen();

// Changes the lowest level printed. Trace listeners (below) keep their own.
void log_set_threshold(int threshold);
int log_threshold();

// Turns "error", "warning", "trace" into a threshold; 0 for any other word.
int log_level_of(std::string_view word);
std::string_view log_word_of(int threshold);

// Writes one line of the platform's own. The line end is added.
void log_line(int level, const char *format, ...) __attribute__((format(printf, 2, 3)));

// Writes text of the print service, which carries its own line ends: text without one is continued by the next call.
// Standard error and the file get each piece at once, if its own level passes; for the others a line is put together
// first and has the highest level of its pieces. Does not allocate, except where syslog or a listener does.
void log_text(int level, std::string_view text);

// What the event library has to say goes to the log from now on, not to standard error.
void log_take_event_library();

// Live listeners, for sessions that asked to see the log: called with each whole line, without its line end, of at
// least the threshold. Returns an id for log_remove_listener. A listener must not log: what is logged meanwhile, by
// whatever it calls, reaches the other targets but no listener. It may add and remove listeners.
using log_listener = std::function<void(std::string_view line)>;
int log_add_listener(int threshold, log_listener listener);
void log_remove_listener(int id);

// The last lines that passed the threshold, oldest first (at most 1000 are kept, with their time of day).
std::vector<std::string> log_recent();

}  // namespace ravo::platform

#endif
