// SPDX-License-Identifier: Apache-2.0
// The platform's own commands, by subject, and what they share.
#ifndef PLATFORM_LINUX_COMMANDS_COMMANDS_H
#define PLATFORM_LINUX_COMMANDS_COMMANDS_H

#include <string>

#include "cli.h"

struct cli_tree;

namespace ravo::cli {

// Installs all commands of this room, and hands the library what the platform knows of the relay's own. To be called
// once, before the daemon installs those.
void install_platform_commands(cli_tree *tree);

void expect_relay_commands(cli_tree *tree);         // relay_commands.cpp
void install_exec_commands(cli_tree *tree);         // session, log level, reset
void install_log_monitor_commands(cli_tree *tree);  // the log at a terminal
void install_show_commands(cli_tree *tree);         // version, history, privilege, log, services, all for support
void install_interface_commands(cli_tree *tree);    // interfaces, ports and their numbers
void install_other_words(cli_tree *tree);           // other words for commands, help
void install_kept_commands(cli_tree *tree);         // settings of interfaces that are not there
void install_local_relay_commands(cli_tree *tree);  // settings of local relay
void install_statistics_commands(cli_tree *tree);   // what became of messages
void install_client_commands(cli_tree *tree);       // the clients seen lately
void install_server_commands(cli_tree *tree);       // how servers answer
void install_crash_commands(cli_tree *tree);        // messages that ended the daemon
void install_monitor_commands(cli_tree *tree);      // each message as soon as it was dealt with
void install_advice_commands(cli_tree *tree);       // what is wrong, and what to do

// Begins and ends to look every 10 s for what is wrong, and to write to the log what was not there the last time.
void advice_begin();
void advice_end();

// Prints what is wrong with an argument, a line with its line end. Returns 1.
int books_refuse(struct cli *cli, const std::string &line);

}  // namespace ravo::cli

#endif
