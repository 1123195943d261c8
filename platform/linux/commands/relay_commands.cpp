// SPDX-License-Identifier: Apache-2.0
// What the platform knows of the relay's own commands. Their definitions come with the relay and say how they are
// typed; here is what they change, who may give them, which document they have, and how a configuration that is
// replayed finds out that a setting is made already.
#include "cli/command_row.h"
#include "commands/commands.h"
#include "commands/relay_held.h"
#include "commands/relay_json.h"

namespace ravo::cli {

namespace {

constexpr command_effect looks = command_effect::looks;
constexpr command_effect setting = command_effect::setting;

constexpr known_command rows[] = {
    {CLI_MODE_CONFIGURATION, "interface IFNAME", {.effect = command_effect::session}},
    {CLI_MODE_CONFIGURATION, "interface vlan <1-4094>", {.effect = command_effect::session}},
    {CLI_MODE_INTERFACE, "ip dhcp relay address A.B.C.D", {.effect = setting, .held = has_server}},
    {CLI_MODE_INTERFACE, "no ip dhcp relay address [A.B.C.D]", {.effect = setting}},
    {CLI_MODE_INTERFACE,
     "ip dhcp relay option60 string WORD {exact-match|partial-match} address A.B.C.D",
     {.effect = setting, .held = has_option60_host}},
    {CLI_MODE_INTERFACE,
     "no ip dhcp relay option60 [string WORD] [exact-match|partial-match] [address A.B.C.D]",
     {.effect = setting}},
    {CLI_MODE_INTERFACE,
     "ip dhcp relay option61 hex WORD address A.B.C.D",
     {.effect = setting, .held = has_option61_host}},
    {CLI_MODE_INTERFACE, "no ip dhcp relay option61 [hex WORD] [address A.B.C.D]", {.effect = setting}},
    {CLI_MODE_EXEC,
     "show ip dhcp relay option [60|61]",
     {.effect = looks, .json = relay_options_json, .schema = "options"}},
    {CLI_MODE_CONFIGURATION, "no ip dhcp relay", {.effect = setting}},
    // It opens sockets, which a check of a file must not.
    {CLI_MODE_CONFIGURATION, "ip dhcp relay", {.effect = setting, .judged = false}},
    {CLI_MODE_CONFIGURATION, "ip dhcp relay information option", {.effect = setting, .held = option_is_on}},
    {CLI_MODE_CONFIGURATION, "ip dhcp relay hops <1-16>", {.effect = setting, .held = hops_are}},
    {CLI_MODE_CONFIGURATION, "no ip dhcp relay information option", {.effect = setting, .held = option_is_off}},
    {CLI_MODE_CONFIGURATION,
     "ip dhcp relay information policy {keep|drop|replace}",
     {.effect = setting, .held = policy_is}},
    {CLI_MODE_CONFIGURATION, "ip dhcp relay information check", {.effect = setting, .held = check_is_on}},
    {CLI_MODE_CONFIGURATION, "no ip dhcp relay information check", {.effect = setting, .held = check_is_off}},
    {CLI_MODE_INTERFACE, "ip dhcp relay information trusted", {.effect = setting}},
    {CLI_MODE_CONFIGURATION, "ip dhcp relay information trust-all", {.effect = setting}},
    {CLI_MODE_CONFIGURATION, "no ip dhcp relay information trust-all", {.effect = setting}},
    {CLI_MODE_INTERFACE, "no ip dhcp relay information trusted", {.effect = setting}},
    {CLI_MODE_EXEC,
     "show ip dhcp relay",
     {.effect = looks, .who = audience::viewers, .json = relay_json, .schema = "relay"}},
    {CLI_MODE_EXEC,
     "show ip dhcp relay information trusted-sources",
     {.effect = looks, .who = audience::viewers, .json = relay_trusted_json, .schema = "trusted-sources"}},
    {CLI_MODE_EXEC,
     "show ip dhcp relay detail",
     {.effect = looks, .json = relay_detail_json, .schema = "relay-detail"}},
    {CLI_MODE_EXEC, "clear ip dhcp relay detail counter", {.effect = command_effect::daemon}},
    {CLI_MODE_CONFIGURATION, "debug ip dhcp relay <0-1>", {.effect = command_effect::daemon}},
    {CLI_MODE_EXEC, "dhcp rely get basic settings", {.effect = looks}},
    {CLI_MODE_EXEC, "dhcp rely get interface settings [IFNAME]", {.effect = looks}},
    {CLI_MODE_CONFIGURATION, "web set dhcp relay ifsettings IFNAME A.B.C.D STATE", {.effect = setting}},
    {CLI_MODE_CONFIGURATION, "web set dhcp relay ifsettings IFNAME STATE", {.effect = setting}},
    {CLI_MODE_CONFIGURATION, "web delete dhcp relay ifsettings IFNAME", {.effect = setting}},
    {CLI_MODE_CONFIGURATION,
     "show ip dhcp relay xid-port-mapping",
     {.effect = looks, .json = relay_transactions_json, .schema = "transactions"}},
    {CLI_MODE_EXEC, "show ip dhcp relay addr_tbl <0-4094> A.B.C.D", {.effect = looks}},
    {CLI_MODE_EXEC, "show ip dhcp relay trust_tbl <0-4094>", {.effect = looks}},
};

}  // namespace

void expect_relay_commands(cli_tree *tree) {
    expect_commands(tree, rows);
}

}  // namespace ravo::cli
