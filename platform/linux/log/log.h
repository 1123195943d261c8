// SPDX-License-Identifier: Apache-2.0
// The platform's log: where the print service and the platform's own lines go.
#ifndef PLATFORM_LINUX_LOG_LOG_H
#define PLATFORM_LINUX_LOG_LOG_H

#include <cstdarg>
#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "fault.h"
#include "log/log_subject.h"

namespace ravo::platform {

// Levels, as in vex_init.h.
inline constexpr int log_level_start = 0;
inline constexpr int log_level_trace = 101;
inline constexpr int log_level_warning = 103;
inline constexpr int log_level_error = 104;

// Chooses where lines go ("stderr", "syslog" or a file's path) and the lowest level printed there. The fault, if any:
// the reason why the file cannot be opened (the log then stays as it was).
fault log_open(const std::string &target, int threshold);
// Goes back to standard error and the default level; forgets listeners and kept lines.
void log_close();
// From now on lines are written by a thread of their own: whatever takes them may hang, and nothing else waits. To be
// called once, after log_open.
void log_start_writer();
// Waits until what was logged so far is written, but no longer than a moment: who asks next may look into the log.
void log_settle();
// The same before the program's last words, which do not go through the log: waits up to 200 ms, as nobody is served.
void log_settle_last();

// For handlers of signals that end the process, so neither allocates nor locks: lines go to the log and to no listener
// from now on, which would take memory; and waits up to a second until what was logged so far is written.
void log_crash_begins();
void log_crash_ends();

// From now on a warning or failure that repeats, by place and by what it is about, is held back after 10 lines in 10
// seconds, and counted in one line a minute. Traces, which somebody asked for, and lines of level 0 never are.
void log_hold_repeats();
// Tells what has been held back so far, and stops holding back.
void log_tell_repeats();

// Opens the log file again under its name, after it was moved away. Without a log file it does nothing. The fault, if
// any: the reason why it cannot be opened (the old file then stays in use).
fault log_reopen();

// Changes the lowest level printed. Trace listeners (below) keep their own.
void log_set_threshold(int threshold);
int log_threshold();

// Turns "error", "warning", "trace" into a threshold; 0 for any other word.
int log_level_of(std::string_view word);
std::string_view log_word_of(int threshold);

// Sets who is called before each line that is about to be written or held back, other than those of level 0.
void log_before_line(void (*listener)());
// For the print service: a line of this level comes.
void log_line_comes(int level);

// Writes one line of the platform's own. The line end is added. When lines that repeat are held back, those of one
// format are one place; what they are about is the message in hand (log_subject.h) and the format's first "%s".
void log_line(int level, const char *format, ...) __attribute__((format(printf, 2, 3)));

// Tells whether a line of the print service is to be written. When it is to be held back but its text is wanted, *like
// is set to what log_held_like is to be given with it, else to 0.
bool log_lets_through(int level, const char *format, va_list arguments, std::uint64_t *like);
void log_held_like(std::uint64_t like, int level, std::string_view text);

// Writes text of the print service, which carries its own line ends: text without one is continued by the next call.
// Standard error and the file get each piece at once, if its own level passes; for the others a line is put together
// first and has the highest level of its pieces. Does not allocate, except for the journal's fields and where a
// listener does; not at all at level 0.
void log_text(int level, std::string_view text);

// What the event library has to say goes to the log from now on, not to standard error.
void log_take_event_library();

// A whole line as listeners get it.
struct log_event {
    int level;
    std::timespec when;
    std::string_view line;  // without its line end
    const log_subject &subject;
};

// Live listeners, for sessions that asked to see the log: called with each whole line of at least the threshold.
// Returns an id for log_remove_listener. A listener must not log: what is logged meanwhile, by whatever it calls,
// reaches the other targets but no listener. It may add and remove listeners.
using log_listener = std::function<void(const log_event &event)>;
int log_add_listener(int threshold, log_listener listener);
void log_remove_listener(int id);

// The last lines that passed the threshold, oldest first (at most 1000 are kept, with their time of day).
std::vector<std::string> log_recent();

}  // namespace ravo::platform

#endif
