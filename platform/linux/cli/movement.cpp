// SPDX-License-Identifier: Apache-2.0
// Commands that move a session between the modes of the command line, and between interfaces.
#include <iterator>
#include <string>
#include <vector>

#include "cli/session.h"
#include "cli/tree.h"
#include "cli/vlan_list.h"
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
    s.mode = CLI_MODE_EXEC;  // whoever gives the line up puts this back
    line_fault fault;
    const int result = run_line(s, line, file_line_limit, &fault);
    if (fault.kind != fault_kind::none) (void)emit(s, fault_for_terminal(fault, line, file_line_limit, offset));
    s.range = std::move(range);
    cli->privilege = s.privilege;  // "do disable"; mode and interface stay as the context has them
    return result;
}

int interface_range(struct cli *cli, int /*argc*/, char **argv) {
    std::vector<std::uint16_t> vlans;
    const fault wrong = read_vlan_list(argv[0], &vlans);
    if (wrong) {
        cli->print(cli->print_handle, "%% Invalid VLAN list: %s\n", wrong.text.c_str());
        return 1;
    }
    std::vector<struct interface *> range;
    for (const std::uint16_t vlan : vlans) range.push_back(ifg_get_by_name(("vlan" + std::to_string(vlan)).c_str()));
    cli->ifp = range.front();
    cli->mode = CLI_MODE_INTERFACE;
    session_of(cli).range = std::move(range);
    return 0;
}

constexpr command_traits own_place = {.effect = command_effect::session};
constexpr command_traits own_place_of_all = {.effect = command_effect::session, .who = audience::viewers};

constexpr command_row exec_rows[] = {
    {.text = "configure terminal",
     .help = {"Enter configuration mode", "Configure from this terminal"},
     .handler = configure_terminal,
     .traits = own_place},
    {.privilege = lowest_privilege,
     .text = "exit",
     .help = {"End the session"},
     .handler = exit_mode,
     .traits = own_place_of_all},
    {.privilege = lowest_privilege,
     .text = "quit",
     .help = {"End the session"},
     .handler = exit_mode,
     .traits = own_place_of_all},
};

constexpr command_row configuration_rows[] = {
    {.privilege = lowest_privilege,
     .text = "exit",
     .help = {"Leave this mode for the one above"},
     .handler = exit_mode,
     .traits = own_place},
    {.privilege = lowest_privilege,
     .text = "quit",
     .help = {"Leave this mode for the one above"},
     .handler = exit_mode,
     .traits = own_place},
    {.privilege = lowest_privilege,
     .text = "end",
     .help = {"Leave configuration for privileged execution mode"},
     .handler = end_modes,
     .traits = own_place},
    {.privilege = lowest_privilege,
     .text = "do LINE",
     .help = {"Run a command of privileged execution mode", "The command"},
     .handler = do_command,
     .traits = {.effect = command_effect::session, .has_line = true}},
};

constexpr command_row range_rows[] = {
    {.mode = CLI_MODE_CONFIGURATION,
     .privilege = viewer_privilege,
     .text = "interface range vlan LIST",
     .help = {"Select an interface to configure", "Several interfaces at once", "VLAN interfaces",
              "VLAN ids and ranges, such as 10,20-30"},
     .handler = interface_range,
     .traits = own_place},
};

}  // namespace

void install_movement(cli_tree *tree, int mode) {
    if (mode == CLI_MODE_EXEC) return install_rows(tree, exec_rows);
    std::vector<command_row> rows(std::begin(configuration_rows), std::end(configuration_rows));
    for (command_row &row : rows) row.mode = mode;
    install_rows(tree, rows);
}

void install_range_commands(cli_tree *tree) {
    install_rows(tree, range_rows);
}

}  // namespace ravo::cli
