// SPDX-License-Identifier: Apache-2.0
// The command line as the platform's other services use it: sessions, their output, help, and files of commands.
#ifndef PLATFORM_LINUX_CLI_COMMAND_LINE_H
#define PLATFORM_LINUX_CLI_COMMAND_LINE_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "cli.h"
#include "cli/command_row.h"

namespace ravo::cli {

// Where a session's output goes. Functions that are empty drop what they are given.
struct session_output {
    // Printed text. Returns negative when the session is gone.
    std::function<int(std::string_view text)> text;
    // A keyed value line. Returns 0, or CLI_BUFFER_FULL when no more can be taken.
    std::function<int(std::span<const std::uint8_t> key, std::string_view text)> value;
    // A record for the web side. Returns 0, or negative when the session is gone.
    std::function<int(std::span<const std::uint8_t> record)> record;
    // The key of the row whose values follow. Returns 0, or negative when the session is gone.
    std::function<int(std::span<const std::uint8_t> key)> row_key;
    // A line of the log, without its line end, for a session with "terminal monitor" on. May be called at any time,
    // from a log listener too (log.h). Empty: such lines go nowhere.
    std::function<void(std::string_view line)> monitor;
    // Tells whether the reader has so much to read that a command should wait for it. Empty: there is always room.
    std::function<bool()> full;
    // Somebody has given a command that changes settings, the daemon or its files: for whoever keeps a record of that.
    // place: the interface it was given for, empty without one. May be called in the middle of the command that gave
    // it.
    std::function<void(std::string_view place, std::string_view line, int result)> changed;
    // "terminal length N" was given: the lines of a page, 0 for output without pages.
    std::function<void(int lines)> terminal_length;
    // Asks the person before a command with consequences ("reset relay"): true: go on. False: the handler must do and
    // print nothing and return 1; the question is put to the person, and after a yes the command is run again and this
    // returns true. Empty: nobody to ask, go on.
    std::function<bool(std::string_view question)> confirm;
    // A command whose output goes on (session_streaming) ended by itself, with this result; the session can run the
    // next line. Empty: the session runs no such commands.
    std::function<void(int result)> stream_end;
};

struct session;
struct session_delete {
    void operator()(session *s) const;
};
using session_ptr = std::unique_ptr<session, session_delete>;

// Opens a session in privileged execution mode (CLI_MODE_EXEC). privilege: 1 to 31: the commands it may use; user: for
// the log; who: viewers may use the commands that are for them alone. Several sessions may exist at once, each with its
// own mode and current interface.
session_ptr session_open(session_output output, int privilege, std::string user, audience who = audience::operators);

// Chooses the view of the commands that follow: CLI_VIEW_... bits, 0 for plain.
void session_set_view(session &s, std::uint32_t view_flags, std::uint32_t show_all);

// Chooses whether commands of tables give the row of the given key alone, if it exists (SNMP's "get"), or those behind
// it.
void session_set_exact(session &s, bool exact);

// Runs one line: parses it, reports what is wrong with it to the session's text output, or runs its handler. A trailing
// line end is ignored, as is an empty line or one that begins with "!". Returns 0 for success, the handler's result or
// 1 for an error. session_closed tells afterwards whether the line ended the session ("exit" in execution mode).
int session_run(session &s, std::string_view line);
bool session_closed(const session &s);

// The same in turns: the line is begun, and each turn goes on with it for about this long, until one returns true, with
// the line's result in *result. Between two turns messages and other sessions are served. Of two lines the first must
// be done before the second begins. A lack of memory comes out as std::bad_alloc; the line is over then.
void session_begin(session &s, std::string line);
[[nodiscard]] bool session_turn(session &s, std::chrono::microseconds slice, int *result);
// Tells whether a line has begun and is not done.
bool session_busy(const session &s);
// Gives such a line up: what it would still have printed is not printed, and the session is where it was before it.
void session_cancel(session &s);

// Tells whether the line that was run last goes on: its text comes as it happens, until the session is interrupted or
// the command ends by itself. What session_run returned means nothing then.
bool session_streaming(const session &s);
// Ends such a command; no other line may be run before. Returns its result.
int session_interrupt(session &s);

// Text that goes with the mode: "#", "(config)#", "(config-if)#"; "(replace)>" while lines are taken as a text.
std::string_view session_prompt(const session &s);
int session_mode(const session &s);
int session_privilege(const session &s);

// One row of help: a word that may come next and its help text. "<cr>" stands for the end of the command.
struct help_row {
    std::string word;
    std::string text;
};

// Help for a half-typed line: what the word that the line ends in can become (when it ends in a blank: what the next
// word can be). Commands of privilege 31 are never listed.
std::vector<help_row> session_help(session &s, std::string_view line);

// Completions of the last, half-typed word of the line: whole words that continue it (keywords and interface names).
std::vector<std::string> session_complete(session &s, std::string_view line);

// The tree that the daemon installs its commands into.
cli_globals *library_globals();

// Every installed command in order of installation, for the command reference and for tests.
struct installed_command {
    int mode;
    int privilege;
    std::string text;
    std::vector<std::string> help;  // a text for each word
    command_traits traits;
};
std::vector<installed_command> installed_commands();

// Runs the daemon's reset callback. Returns its result.
int run_reset();
// Adds what is to be done right after that, before the interfaces that exist are reported again.
void on_reset(std::function<void()> listener);

// A command of the relay that a session is about to run.
struct relay_call {
    session &s;
    std::string_view command;  // its text as it was installed
    struct interface *ifp;     // of a command for an interface: that; else null
    const std::vector<std::string> &arguments;
    const struct command_traits &traits;
};
// Runs around each command that may change the relay's settings. run: runs its handler, once, and returns the result,
// which the guard returns too.
using relay_guard = std::function<int(const relay_call &call, const std::function<int()> &run)>;
void set_relay_guard(relay_guard guard);

// How many commands that may change the relay's settings were run so far.
std::uint64_t count_settings_made();

}  // namespace ravo::cli

#endif
