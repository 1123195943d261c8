// Commands that move a session between the modes of the command line, and between interfaces.
#include <string>
#include <vector>

#include "cli/session.h"
#include "commands/vlan_list.h"
#include "nsm.h"

namespace ravo::cli {

namespace {

int configure_terminal(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    cli->mode = CLI_MODE_CONFIGURATION;
    return 0;
}

int exit_mode(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    if (cli->mode == CLI_MODE_INTERFACE)
        cli->mode = CLI_MODE_CONFIGURATION;
    else if (cli->mode == CLI_MODE_CONFIGURATION)
        cli->mode = CLI_MODE_EXEC;
    else
        session_of(cli).closed = true;
    return 0;
}

int end_modes(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    cli->mode = CLI_MODE_EXEC;
    return 0;
}

// Runs a command of execution mode and stays where the session is.
int do_command(struct cli *cli, int /*argc*/, char **argv) {
    session &s = session_of(cli);
    const std::string line = argv[0];
    const std::size_t offset = s.rest;
    std::vector<struct interface *> range = s.range;
    s.mode = CLI_MODE_EXEC;
    line_fault fault;
    const int result = run_line(s, line, file_line_limit, &fault);
    if (fault.kind != fault_kind::none) (void)emit(s, fault_for_terminal(fault, line, file_line_limit, offset));
    s.range = std::move(range);
    cli->privilege = s.privilege;  // "do disable"; mode and interface stay as the context has them
    return result;
}

int interface_range(struct cli *cli, int /*argc*/, char **argv) {
    std::vector<std::uint16_t> vlans;
    const std::string fault = read_vlan_list(argv[0], &vlans);
    if (!fault.empty()) {
        cli->print(cli->print_handle, "%% Invalid VLAN list: %s\n", fault.c_str());
        return 1;
    }
    std::vector<struct interface *> range;
    for (const std::uint16_t vlan : vlans) range.push_back(ifg_get_by_name(("vlan" + std::to_string(vlan)).c_str()));
    cli->ifp = range.front();
    cli->mode = CLI_MODE_INTERFACE;
    session_of(cli).range = std::move(range);
    return 0;
}

constexpr const char *help_configure[] = {"Enter configuration mode", "Configure from this terminal", nullptr};
constexpr const char *help_close[] = {"End the session", nullptr};
constexpr const char *help_exit[] = {"Leave this mode for the one above", nullptr};
constexpr const char *help_end[] = {"Leave configuration for privileged execution mode", nullptr};
constexpr const char *help_do[] = {"Run a command of privileged execution mode", "The command", nullptr};
constexpr const char *help_range[] = {"Select an interface to configure", "Several interfaces at once",
                                      "VLAN interfaces", "VLAN ids and ranges, such as 10,20-30", nullptr};

constexpr builtin exec_rows[] = {
    {CLI_MODE_EXEC,
     operator_privilege,
     command_role::movement,
     {"configure terminal", configure_terminal, help_configure, {}}},
    {CLI_MODE_EXEC, 1, command_role::movement, {"exit", exit_mode, help_close, {}}},
};

constexpr builtin configuration_rows[] = {
    {0, 1, command_role::movement, {"exit", exit_mode, help_exit, {}}},
    {0, 1, command_role::movement, {"end", end_modes, help_end, {}}},
    {0, 1, command_role::movement, {"do LINE", do_command, help_do, {}}},
};

constexpr builtin range_rows[] = {
    {CLI_MODE_CONFIGURATION, 2, command_role::movement, {"interface range vlan LIST", interface_range, help_range, {}}},
};

}  // namespace

void install_movement(cli_tree *tree, int mode) {
    if (mode == CLI_MODE_EXEC)
        install_builtins(tree, exec_rows);
    else
        install_builtins(tree, configuration_rows, mode);
}

void install_range_commands(cli_tree *tree) {
    install_builtins(tree, range_rows);
}

}  // namespace ravo::cli
