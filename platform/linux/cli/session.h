// SPDX-License-Identifier: Apache-2.0
// A session as the command library's own sources see it.
#ifndef PLATFORM_LINUX_CLI_SESSION_H
#define PLATFORM_LINUX_CLI_SESSION_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "cli.h"
#include "cli/command_line.h"
#include "cli/filter.h"
#include "cli/match.h"
#include "cli/turns.h"
#include "cli/words.h"

namespace ravo::cli {

// Longest line that a session takes, and that a file may hold: one line of a configuration can list all VLANs, and
// what "show running-config" prints can be typed in again.
inline constexpr std::size_t session_line_limit = 32768;
inline constexpr std::size_t file_line_limit = 32768;

// What the handles in a handler's context point to.
struct print_target {
    session *owner = nullptr;
    bool values = false;  // keyed values, else text
};

// Takes a line that is typed, without its line end, and returns the line's result.
using line_taker = std::function<int(session &s, std::string_view line)>;

// Where a session is.
struct session_place {
    int mode = CLI_MODE_EXEC;
    struct interface *ifp = nullptr;
    std::vector<struct interface *> range;
};

struct session {
    session_output output;
    print_target text_target;
    print_target value_target;
    int granted = 1;    // highest privilege it may have
    int privilege = 1;  // privilege it has
    std::string user;   // for the log
    audience who = audience::operators;
    int mode = CLI_MODE_EXEC;
    struct interface *ifp = nullptr;        // current interface in interface mode
    std::vector<struct interface *> range;  // the interfaces of "interface range", empty without one
    std::uint32_t view_flags = 0;
    std::uint32_t show_all = 0;
    bool exact = false;                          // of a table the row of the key alone is wanted
    bool closed = false;                         // it was ended by a command
    bool gone = false;                           // its output cannot be delivered any more
    bool replayed = false;                       // its lines are those of a configuration that is replayed
    bool check_only = false;                     // only to find the faults: nothing outside the relay's data changes
    relay_guard taker;                           // takes the settings it makes; empty: the relay does
    line_taker collector;                        // takes its lines as they are; empty: they are commands
    std::string collected_for;                   // the command whose lines they are, for the record
    std::unique_ptr<line_filter> filter;         // of the command that runs, null without one
    std::unique_ptr<line_filter> stream_filter;  // of the command that goes on
    std::function<int()> stream_stop;            // ends it and returns its result; empty when there is none
    std::deque<std::string> history;             // oldest first
    int terminal_length = 24;                    // lines of a page, 0: no pages
    int monitor = 0;                             // listener id of "terminal monitor", 0 when off
    std::size_t rest = 0;                        // column of what LINE stands for in the line that runs
    turns_ptr task;                              // the line that runs in turns
    int result = 0;                              // of that line, once it is known
    session_place place_before;                  // where the session was when it began
};

enum class fault_kind { none, invalid, incomplete, ambiguous, too_long, bad_filter, not_allowed };

// What is wrong with a line.
struct line_fault {
    fault_kind kind = fault_kind::none;
    std::size_t column = 0;  // of the word, in bytes
    std::string text;        // the word; of an ambiguous line all up to it; of a filter and of what is not allowed why
};

// Runs a line as session_run does, but leaves what is wrong with it to the caller. Returns the handler's result; 1 with
// *fault filled when none was run.
int run_line(session &s, std::string_view line, std::size_t limit, line_fault *fault);

// What session_run prints for a fault. offset: column at which the line begins on the terminal.
std::string fault_for_terminal(const line_fault &fault, std::string_view line, std::size_t limit, std::size_t offset);

// For a handler that is another word for a command: runs that in the handler's session. Returns its result.
int run_instead(struct cli *cli, const std::string &line);

// Opens a session whose text is appended to *text.
session_ptr session_capture(std::string *text, int privilege, std::string user);

// Whose lines a session runs.
caller caller_of(const session &s);

// The session of a handler's context.
session &session_of(struct cli *cli);

// Sends text to the session, through the filter of the running command. Others may have their turns meanwhile. Returns
// 0, or negative when the session is gone.
int emit(session &s, std::string_view text);

// Ends a filter's text: its last line and its counts go to the session.
void finish_filter(session &s, line_filter &filter);

// For a handler whose output goes on after it returned. stop: called once, when the session is interrupted or ends;
// returns the command's result. Returns false when the session cannot have that; the handler then says so.
bool stream_begin(session &s, std::function<int()> stop);
// Sends text of the command that goes on, through its filter. Returns negative when the session is gone.
int stream_emit(session &s, std::string_view text);
// The command ends by itself; stop is not called any more.
void stream_finish(session &s, int result);

// The context of the session's next handler.
struct cli context_of(session &s);

// Runs a handler in the session's place: fills its context and takes back what it changed. arguments: what it gets, in
// order. Returns its result.
int call_handler(session &s, cli_handler handler, const std::vector<std::string> &arguments);

}  // namespace ravo::cli

#endif
