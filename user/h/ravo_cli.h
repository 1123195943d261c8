// SPDX-License-Identifier: Apache-2.0
// The relay's commands: handlers by their source.
#ifndef RAVO_CLI_H
#define RAVO_CLI_H

#include <cstdint>

#include "cli.h"
#include "ravo_db_if.h"

extern std::uint32_t debug_flag;  // last value given to "debug ip dhcp relay"

// Stores the debug flag and prints it. Returns the stored value.
std::uint32_t RAVO_IF_Enable_Debug_Flag(std::uint32_t value);

// The definitions of ravo_cli_config.cpp, ravo_cli_show.cpp and ravo_cli_web.cpp, in the order they are installed.
struct ravo_command {
    int mode;
    int privilege;
    cli_element element;
};
inline constexpr int RAVO_COMMANDS = 34;
extern ravo_command ravo_commands[RAVO_COMMANDS];

// ravo_cli_config.cpp
int ravo_cmd_interface(struct cli *cli, int argc, char **argv);
int ravo_cmd_address(struct cli *cli, int argc, char **argv);
int ravo_cmd_no_address(struct cli *cli, int argc, char **argv);
int ravo_cmd_option60(struct cli *cli, int argc, char **argv);
int ravo_cmd_no_option60(struct cli *cli, int argc, char **argv);
int ravo_cmd_option61(struct cli *cli, int argc, char **argv);
int ravo_cmd_no_option61(struct cli *cli, int argc, char **argv);
int ravo_cmd_relay(struct cli *cli, int argc, char **argv);
int ravo_cmd_no_relay(struct cli *cli, int argc, char **argv);
int ravo_cmd_information_option(struct cli *cli, int argc, char **argv);
int ravo_cmd_no_information_option(struct cli *cli, int argc, char **argv);
int ravo_cmd_hops(struct cli *cli, int argc, char **argv);
int ravo_cmd_policy(struct cli *cli, int argc, char **argv);
int ravo_cmd_check(struct cli *cli, int argc, char **argv);
int ravo_cmd_no_check(struct cli *cli, int argc, char **argv);
int ravo_cmd_trusted(struct cli *cli, int argc, char **argv);
int ravo_cmd_no_trusted(struct cli *cli, int argc, char **argv);
int ravo_cmd_trust_all(struct cli *cli, int argc, char **argv);
int ravo_cmd_no_trust_all(struct cli *cli, int argc, char **argv);
int ravo_cmd_debug(struct cli *cli, int argc, char **argv);

// ravo_cli_show.cpp
int ravo_cmd_show_relay(struct cli *cli, int argc, char **argv);
int ravo_cmd_show_detail(struct cli *cli, int argc, char **argv);
int ravo_cmd_show_trusted_sources(struct cli *cli, int argc, char **argv);
int ravo_cmd_show_option(struct cli *cli, int argc, char **argv);
int ravo_cmd_show_xid(struct cli *cli, int argc, char **argv);
int ravo_cmd_clear_counter(struct cli *cli, int argc, char **argv);
// Prints an interface's block of "show ip dhcp relay detail"; null: there is no record.
void ravo_show_detail_block(struct cli *cli, const iface *record);

// ravo_cli_web.cpp
int ravo_cmd_get_basic(struct cli *cli, int argc, char **argv);
int ravo_cmd_get_interface(struct cli *cli, int argc, char **argv);
int ravo_cmd_web_set_server(struct cli *cli, int argc, char **argv);
int ravo_cmd_web_set(struct cli *cli, int argc, char **argv);
int ravo_cmd_web_delete(struct cli *cli, int argc, char **argv);
int ravo_cmd_show_addr_tbl(struct cli *cli, int argc, char **argv);
int ravo_cmd_show_trust_tbl(struct cli *cli, int argc, char **argv);

// The code by which the web pages know a result of an operation.
[[nodiscard]] std::uint32_t ravo_web_code_of(std::uint32_t result);

// Checks that text is a VLAN id, 1 to 4094. Returns 0; 1 when it is none, after it printed that.
[[nodiscard]] int ravo_check_vlan_id(struct cli *cli, const char *text);

// ravo_cli_write.cpp: writes the relay's section of the running configuration. Returns the number of sections counted.
[[nodiscard]] int ravo_config_write(struct cli *cli);

#endif
