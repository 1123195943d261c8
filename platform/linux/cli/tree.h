// SPDX-License-Identifier: Apache-2.0
// The command tree: what the daemon and the platform installed.
#ifndef PLATFORM_LINUX_CLI_TREE_H
#define PLATFORM_LINUX_CLI_TREE_H

#include <span>
#include <string>
#include <vector>

#include "cli.h"
#include "cli/command_row.h"
#include "cli/grammar.h"

namespace ravo::cli {

struct command {
    int mode = 0;
    int privilege = 0;
    bool of_daemon = false;  // the daemon brought it; else it is the platform's own
    std::string text;
    cli_handler handler = nullptr;
    command_traits traits;
    grammar form;
};

struct config_section {
    int mode = 0;
    cli_config_writer writer = nullptr;
};

}  // namespace ravo::cli

struct cli_tree {
    std::vector<ravo::cli::command> commands;  // in order of installation
    std::vector<std::span<const ravo::cli::known_command>> known;
    std::vector<ravo::cli::config_section> sections;
    cli_reset reset = nullptr;
};

namespace ravo::cli {

// The one tree of the process, with the session's own commands in it.
cli_tree &library_tree();

// Commands that move a session: the platform's own for a mode, and the ranges of interfaces.
void install_movement(cli_tree *tree, int mode);
void install_range_commands(cli_tree *tree);

}  // namespace ravo::cli

#endif
