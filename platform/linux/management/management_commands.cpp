// SPDX-License-Identifier: Apache-2.0
// "show users" and "clear session".
#include <algorithm>
#include <cstdlib>

#include "base/time_text.h"
#include "cli/command_row.h"
#include "cli/help_texts.h"
#include "cli/session.h"
#include "log/log.h"
#include "management/management.h"
#include "management/management_open.h"

namespace ravo::platform {

namespace {

using cli::audience;
using cli::command_effect;
using cli::command_row;

std::int64_t whole_seconds(std::chrono::steady_clock::duration span) {
    return std::chrono::duration_cast<std::chrono::seconds>(span).count();
}

int show_users(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    constexpr std::size_t whole_seconds_of_time = 19;
    constexpr const char *row = "%7s  %-14s  %7s  %-8s  %9s  %-19s  %s\n";
    cli->print(cli->print_handle, row, "Session", "User", "Process", "Terminal", "Privilege", "Since", "Idle");
    for (const session_about &each : management_session_list())
        cli->print(cli->print_handle, row, std::to_string(each.number).c_str(), each.user.c_str(),
                   std::to_string(each.pid).c_str(), each.terminal.c_str(), std::to_string(each.privilege).c_str(),
                   time_text(each.opened_us).substr(0, whole_seconds_of_time).c_str(),
                   each.busy ? "busy" : span_text(whole_seconds(each.idle)).c_str());
    return 0;
}

int users_json(struct cli * /*cli*/, int /*argc*/, char ** /*argv*/, cli::json_writer &out) {
    cli::json_open(out, "", '{');
    cli::json_open(out, "sessions", '[');
    for (const session_about &each : management_session_list()) {
        cli::json_open(out, "", '{');
        cli::json_number(out, "session", each.number);
        cli::json_string(out, "user", each.user);
        cli::json_number(out, "uid", each.uid);
        cli::json_number(out, "process", each.pid);
        if (each.terminal != "-") cli::json_string(out, "terminal", each.terminal);
        cli::json_number(out, "privilege", each.privilege);
        cli::json_string(out, "since", time_text_utc(each.opened_us));
        cli::json_number(out, "idle_seconds", whole_seconds(each.idle));
        cli::json_bool(out, "busy", each.busy);
        cli::json_close(out, '}');
    }
    cli::json_close(out, ']');
    cli::json_close(out, '}');
    return 0;
}

int clear_session(struct cli *cli, int /*argc*/, char **argv) {
    const std::string &by = cli::session_of(cli).user;
    const auto number = static_cast<unsigned>(std::strtoul(argv[0], nullptr, 10));
    if (management_session_clear(number, by)) return 0;
    cli->print(cli->print_handle, "%% There is no session %s; \"show users\" lists them\n", argv[0]);
    return 1;
}

constexpr command_row rows[] = {
    {.privilege = cli::viewer_privilege,
     .text = "show users",
     .help = {cli::help::show, "Sessions, and whose they are"},
     .handler = show_users,
     .traits = {.effect = command_effect::looks, .who = audience::viewers, .json = users_json, .schema = "users"}},
    {.text = "clear session <1-4294967295>",
     .help = {"Reset counters, or end a session", "End somebody's session", "Its number, as \"show users\" has it"},
     .handler = clear_session,
     .traits = {.effect = command_effect::daemon}},
};

}  // namespace

void install_management_commands(cli_tree *tree) {
    cli::install_rows(tree, rows);
}

}  // namespace ravo::platform
