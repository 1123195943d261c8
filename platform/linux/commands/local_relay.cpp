// SPDX-License-Identifier: Apache-2.0
// Commands of local relay. The relay has the function but no commands for it; it is reached through its access table.
#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "cli/command_row.h"
#include "cli/help_texts.h"
#include "cli/vlan_list.h"
#include "commands/commands.h"
#include "nsm.h"
#include "process/relay_data.h"

namespace ravo::cli {

namespace {

// A request to the relay: room for 4096 VLAN ids in host byte order, a byte whose lowest bit means add, a byte unused.
constexpr std::size_t list_bytes = 2 * RELAY_ACCESS_VLANS;
using vlan_request = std::array<std::uint8_t, list_bytes + 2>;

int fail(struct cli *cli, const std::string &reason) {
    cli->print(cli->print_handle, "%% %s\n", reason.c_str());
    return 1;
}

int no_relay(struct cli *cli) {
    return fail(cli, "Not available: no relay runs here");
}

int set_local_relay(struct cli *cli, int on) {
    const relay_access *relay = platform::relay_data();
    if (relay == nullptr) return no_relay(cli);
    (void)relay->local_relay_set(on);  // that it was so already is no error
    return 0;
}

int enable_local_relay(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    return set_local_relay(cli, 1);
}

int disable_local_relay(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    return set_local_relay(cli, 0);
}

int change_vlans(struct cli *cli, const char *list, bool add) {
    const relay_access *relay = platform::relay_data();
    if (relay == nullptr) return no_relay(cli);
    std::vector<std::uint16_t> vlans;
    const fault wrong = read_vlan_list(list, &vlans);
    if (wrong) return fail(cli, "Invalid VLAN list: " + wrong.text);
    vlan_request request{};
    std::memcpy(request.data(), vlans.data(), 2 * vlans.size());
    request[list_bytes] = add ? 1 : 0;
    return relay->local_relay_vlans(request.data()) == 1 ? 0 : fail(cli, "The VLAN list is full");
}

int add_vlans(struct cli *cli, int /*argc*/, char **argv) {
    return change_vlans(cli, argv[0], /*add=*/true);
}

int remove_vlans(struct cli *cli, int /*argc*/, char **argv) {
    return change_vlans(cli, argv[0], /*add=*/false);
}

int set_on_interface(struct cli *cli, int on) {
    const relay_access *relay = platform::relay_data();
    if (relay == nullptr) return no_relay(cli);
    if (cli->ifp == nullptr) return fail(cli, "No interface is selected");
    return relay->interface_local_relay_set(cli->ifp->name, on) == 1 ? 0 : fail(cli, "Memory not enough");
}

int enable_on_interface(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    return set_on_interface(cli, 1);
}

int disable_on_interface(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    return set_on_interface(cli, 0);
}

constexpr char no_word[] = "Turn off or remove";
constexpr char local_word[] = "Option 82 added to broadcasts within their VLAN";
constexpr char vlan_word[] = "VLANs it applies to";
constexpr char list_word[] = "VLAN ids and ranges, such as 10,20-30";
constexpr command_traits setting = {.effect = command_effect::setting};

constexpr command_row on_row(int mode, cli_handler handler) {
    return {.mode = mode,
            .privilege = viewer_privilege,
            .text = "ip dhcp local-relay",
            .help = {help::ip, help::dhcp, local_word},
            .handler = handler,
            .traits = setting};
}

constexpr command_row off_row(int mode, cli_handler handler) {
    return {.mode = mode,
            .privilege = viewer_privilege,
            .text = "no ip dhcp local-relay",
            .help = {no_word, help::ip, help::dhcp, local_word},
            .handler = handler,
            .traits = setting};
}

constexpr command_row rows[] = {
    on_row(CLI_MODE_CONFIGURATION, enable_local_relay),
    off_row(CLI_MODE_CONFIGURATION, disable_local_relay),
    {.mode = CLI_MODE_CONFIGURATION,
     .privilege = viewer_privilege,
     .text = "ip dhcp local-relay vlan LIST",
     .help = {help::ip, help::dhcp, local_word, vlan_word, list_word},
     .handler = add_vlans,
     .traits = setting},
    {.mode = CLI_MODE_CONFIGURATION,
     .privilege = viewer_privilege,
     .text = "no ip dhcp local-relay vlan LIST",
     .help = {no_word, help::ip, help::dhcp, local_word, vlan_word, list_word},
     .handler = remove_vlans,
     .traits = setting},
    on_row(CLI_MODE_INTERFACE, enable_on_interface),
    off_row(CLI_MODE_INTERFACE, disable_on_interface),
};

}  // namespace

void install_local_relay_commands(cli_tree *tree) {
    install_rows(tree, rows);
}

}  // namespace ravo::cli
