// SPDX-License-Identifier: Apache-2.0
// All commands of the platform in the order in which they are installed, which is that of the help among equal words.
#include "commands/commands.h"

namespace ravo::cli {

void install_platform_commands(cli_tree *tree) {
    install_exec_commands(tree);
    install_log_monitor_commands(tree);
    install_show_commands(tree);
    install_other_words(tree);
    install_interface_commands(tree);
    install_kept_commands(tree);
    install_local_relay_commands(tree);
    install_statistics_commands(tree);
    install_client_commands(tree);
    install_server_commands(tree);
    install_crash_commands(tree);
    install_monitor_commands(tree);
    install_advice_commands(tree);
    expect_relay_commands(tree);
}

int books_refuse(struct cli *cli, const std::string &line) {
    cli->print(cli->print_handle, "%s", line.c_str());
    return 1;
}

}  // namespace ravo::cli
