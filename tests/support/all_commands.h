// SPDX-License-Identifier: Apache-2.0
// The commands of the platform and of the relay together, as the daemon has them.
#ifndef TESTS_ALL_COMMANDS_H
#define TESTS_ALL_COMMANDS_H

#include "cli/command_line.h"
#include "commands/commands.h"
#include "configuration/configuration.h"
#include "management/management.h"

// Installs the platform's commands. To be called once in a process.
inline void install_platform() {
    cli_tree *tree = ravo::cli::library_globals()->tree;
    ravo::cli::install_platform_commands(tree);
    ravo::cli::install_configuration_commands(tree);
    ravo::platform::install_management_commands(tree);
}

#endif
