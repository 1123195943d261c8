// SPDX-License-Identifier: Apache-2.0
// The command that forgets what waits for an interface.
#include <string>

#include "cli/command_row.h"
#include "commands/commands.h"
#include "inventory/inventory_names.h"
#include "settings/kept_settings.h"

namespace ravo::cli {

namespace {

int forget(struct cli *cli, int /*argc*/, char **argv) {
    const std::string typed = argv[0];  // "vlan20" or "20", which the parser has seen to
    const std::string name = typed.starts_with("vlan") ? typed : "vlan" + typed;
    const std::uint16_t vlan = platform::vlan_of_name(name);
    switch (kept_forget(vlan)) {
        case forget_result::forgotten:
            return 0;
        case forget_result::is_there:
            cli->print(cli->print_handle, "%% Interface %s is there; take its settings back one by one\n",
                       name.c_str());
            return 1;
        case forget_result::nothing:
            break;
    }
    cli->print(cli->print_handle, "%% No settings wait for interface %s\n", name.c_str());
    return 1;
}

constexpr char no_word[] = "Turn off or remove";
constexpr char interface_word[] = "What is configured for an interface that is not there";
constexpr command_traits forgets = {.effect = command_effect::setting};

constexpr command_row rows[] = {
    {.mode = CLI_MODE_CONFIGURATION,
     .privilege = viewer_privilege,
     .text = "no interface IFNAME",
     .help = {no_word, interface_word, "Interface name, such as vlan20"},
     .handler = forget,
     .traits = forgets},
    {.mode = CLI_MODE_CONFIGURATION,
     .privilege = viewer_privilege,
     .text = "no interface vlan <1-4094>",
     .help = {no_word, interface_word, "VLAN interface", "VLAN id"},
     .handler = forget,
     .traits = forgets},
};

}  // namespace

void install_kept_commands(cli_tree *tree) {
    install_rows(tree, rows);
}

}  // namespace ravo::cli
