// The commands on the books of messages, by subject, and what they share.
#ifndef PLATFORM_LINUX_COMMANDS_BOOKS_COMMANDS_H
#define PLATFORM_LINUX_COMMANDS_BOOKS_COMMANDS_H

#include <string>

#include "cli.h"
#include "cli/tree.h"

namespace ravo::cli {

void install_statistics_commands(cli_tree *tree);
void install_client_commands(cli_tree *tree);
void install_monitor_commands(cli_tree *tree);

// Prints what is wrong with an argument. Returns 1.
int books_refuse(struct cli *cli, const std::string &line);

}  // namespace ravo::cli

#endif
