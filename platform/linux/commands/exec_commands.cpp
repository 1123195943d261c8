// SPDX-License-Identifier: Apache-2.0
// Commands about the session itself and the running daemon: privilege, terminal, log level, reset.
#include <cstdlib>
#include <string_view>

#include "cli/command_row.h"
#include "cli/session.h"
#include "commands/commands.h"
#include "log/log.h"

namespace ravo::cli {

namespace {

int enable(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    cli->privilege = session_of(cli).granted;
    return 0;
}

int disable(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    cli->privilege = lowest_privilege;  // enough to leave, or to get it back
    return 0;
}

int terminal_length(struct cli *cli, int /*argc*/, char **argv) {
    session &s = session_of(cli);
    s.terminal_length = std::atoi(argv[0]);
    if (s.output.terminal_length) s.output.terminal_length(s.terminal_length);
    return 0;
}

int logging_level(struct cli * /*cli*/, int /*argc*/, char **argv) {
    platform::log_set_threshold(platform::log_level_of(argv[0]));
    return 0;
}

int reset_relay(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    session &s = session_of(cli);
    if (s.output.confirm && !s.output.confirm("Reset the relay to its state after start-up, without any settings?"))
        return 1;
    platform::log_line(platform::log_level_warning, "relay reset by %s", s.user.c_str());
    const int result = run_reset();
    if (result != 0) cli->print(cli->print_handle, "%% The relay could not be reset (%d)\n", result);
    return result == 0 ? 0 : 1;
}

constexpr command_traits own = {.effect = command_effect::session};
constexpr command_traits of_daemon = {.effect = command_effect::daemon};

constexpr command_row logging_level_row(int mode) {
    return {
        .mode = mode,
        .text = "logging level {error|warning|trace}",
        .help = {"The daemon's log", "What is written to it", "Failures only", "Failures and warnings", "Everything"},
        .handler = logging_level,
        .traits = of_daemon};
}

constexpr command_row rows[] = {
    {.privilege = lowest_privilege,
     .text = "enable",
     .help = {"Take back the session's full privilege"},
     .handler = enable,
     .traits = own},
    {.privilege = lowest_privilege,
     .text = "disable",
     .help = {"Give up privilege until \"enable\""},
     .handler = disable,
     .traits = own},
    {.privilege = lowest_privilege,
     .text = "terminal length <0-512>",
     .help = {"This session's terminal", "Lines of a page", "Number of lines, 0: no pages"},
     .handler = terminal_length,
     .traits = {.effect = command_effect::session, .who = audience::viewers}},
    logging_level_row(CLI_MODE_EXEC),
    logging_level_row(CLI_MODE_CONFIGURATION),
    {.text = "reset relay",
     .help = {"Back to the state after start-up", "The relay: all its settings are lost"},
     .handler = reset_relay,
     .traits = of_daemon},
};

}  // namespace

void install_exec_commands(cli_tree *tree) {
    install_rows(tree, rows);
}

}  // namespace ravo::cli
