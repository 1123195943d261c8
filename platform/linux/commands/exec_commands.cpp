// Commands about the session itself and the running daemon: privilege, terminal, log level, reset.
#include <cstdlib>
#include <string_view>

#include "cli/session.h"
#include "log/log.h"

namespace ravo::cli {

namespace {

// The least that a session can do: leave, or get its privilege back.
constexpr int lowest_privilege = 1;

int enable(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    cli->privilege = session_of(cli).granted;
    return 0;
}

int disable(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    cli->privilege = lowest_privilege;
    return 0;
}

int terminal_length(struct cli *cli, int /*argc*/, char **argv) {
    session &s = session_of(cli);
    s.terminal_length = std::atoi(argv[0]);
    if (s.output.terminal_length) s.output.terminal_length(s.terminal_length);
    return 0;
}

int terminal_monitor(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    session &s = session_of(cli);
    if (!s.output.monitor) {
        cli->print(cli->print_handle, "%% This session cannot show log lines\n");
        return 1;
    }
    if (s.monitor == 0)
        s.monitor = platform::log_add_listener(platform::log_level_trace,
                                               [&s](std::string_view line) { s.output.monitor(line); });
    return 0;
}

int terminal_no_monitor(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    session &s = session_of(cli);
    if (s.monitor != 0) platform::log_remove_listener(s.monitor);
    s.monitor = 0;
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

constexpr const char *help_enable[] = {"Take back the session's full privilege", nullptr};
constexpr const char *help_disable[] = {"Give up privilege until \"enable\"", nullptr};
constexpr const char *help_length[] = {"This session's terminal", "Lines of a page", "Number of lines, 0: no pages",
                                       nullptr};
constexpr const char *help_monitor[] = {"This session's terminal", "Show log lines as they are written", nullptr};
constexpr const char *help_no_monitor[] = {"This session's terminal", "Turn off", "Showing log lines", nullptr};
constexpr const char *help_level[] = {
    "The daemon's log", "What is written to it", "Failures only", "Failures and warnings", "Everything", nullptr};
constexpr const char *help_reset[] = {"Back to the state after start-up", "The relay: all its settings are lost",
                                      nullptr};

constexpr builtin rows[] = {
    {CLI_MODE_EXEC, lowest_privilege, command_role::movement, {"enable", enable, help_enable, {}}},
    {CLI_MODE_EXEC, lowest_privilege, command_role::movement, {"disable", disable, help_disable, {}}},
    {CLI_MODE_EXEC,
     lowest_privilege,
     command_role::platform,
     {"terminal length <0-512>", terminal_length, help_length, {}}},
    {CLI_MODE_EXEC,
     operator_privilege,
     command_role::platform,
     {"terminal monitor", terminal_monitor, help_monitor, {}}},
    {CLI_MODE_EXEC,
     operator_privilege,
     command_role::platform,
     {"terminal no monitor", terminal_no_monitor, help_no_monitor, {}}},
    {CLI_MODE_EXEC,
     operator_privilege,
     command_role::platform,
     {"logging level {error|warning|trace}", logging_level, help_level, {}}},
    {CLI_MODE_CONFIGURATION,
     operator_privilege,
     command_role::platform,
     {"logging level {error|warning|trace}", logging_level, help_level, {}}},
    {CLI_MODE_EXEC, operator_privilege, command_role::platform, {"reset relay", reset_relay, help_reset, {}}},
};

}  // namespace

void install_exec_commands(cli_tree *tree) {
    install_movement(tree, CLI_MODE_EXEC);
    install_builtins(tree, rows);
}

}  // namespace ravo::cli
