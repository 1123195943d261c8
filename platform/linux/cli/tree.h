// The command tree: what the daemon and the platform installed.
#ifndef PLATFORM_LINUX_CLI_TREE_H
#define PLATFORM_LINUX_CLI_TREE_H

#include <span>
#include <string>
#include <vector>

#include "cli.h"
#include "cli/grammar.h"

namespace ravo::cli {

// Least privilege of the commands that are meant for programs: help and completion pass over them.
inline constexpr int program_privilege = 31;
// Privilege of the platform's commands that change something.
inline constexpr int operator_privilege = 15;

// What a command is to a session, beyond its handler.
enum class command_role {
    relay,     // about the relay: applied to each interface of a range
    platform,  // the platform's own: passed over when a file is only checked
    startup,   // the platform's own, for the startup configuration: may not stand in one
    movement,  // changes nothing but the session's place and privilege
};

struct command {
    int mode = 0;
    int privilege = 0;
    command_role role = command_role::relay;
    const cli_element *element = nullptr;
    grammar form;
};

struct config_section {
    int mode = 0;
    cli_config_writer writer = nullptr;
};

}  // namespace ravo::cli

struct cli_tree {
    std::vector<ravo::cli::command> commands;  // in order of installation
    std::vector<ravo::cli::config_section> sections;
    cli_reset reset = nullptr;
};

namespace ravo::cli {

// The one tree of the process, with the platform's own commands in it.
cli_tree &library_tree();

// A row of the platform's own commands.
struct builtin {
    int mode;
    int privilege;
    command_role role;
    cli_element element;
};

// Installs rows, in another mode than their own when one is given. The rows must be static.
void install_builtins(cli_tree *tree, std::span<const builtin> rows, int mode = 0);

// The platform's own commands by subject; each installs its table.
void install_movement(cli_tree *tree, int mode);  // "exit", "end", "do" in a configuration mode
void install_exec_commands(cli_tree *tree);
void install_show_commands(cli_tree *tree);
void install_file_commands(cli_tree *tree);
void install_local_relay_commands(cli_tree *tree);
void install_range_commands(cli_tree *tree);
void install_books_commands(cli_tree *tree);  // what became of messages

}  // namespace ravo::cli

#endif
