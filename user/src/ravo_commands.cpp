// SPDX-License-Identifier: Apache-2.0
// The relay's commands as a table: text, mode, privilege, handler, and one help text for every word. They are installed
// in this order. Privilege 2 is the ordinary one, 20 that of diagnosis and of servers by option 60 and 61; 31 marks the
// commands of the web and SNMP front ends.
#include "cli.h"
#include "ravo_cli.h"

namespace {

constexpr int in_exec = CLI_MODE_EXEC;
constexpr int in_config = CLI_MODE_CONFIGURATION;
constexpr int in_interface = CLI_MODE_INTERFACE;

constexpr int ordinary = 2;
constexpr int diagnosis = 20;
constexpr int front_ends = 31;

// Help texts of words that many commands share.
constexpr const char *help_no = "Negate a command or set its defaults";
constexpr const char *help_show = "Show running system information";
constexpr const char *help_ip = "Internet Protocol version 4 (IPv4)";
constexpr const char *help_dhcp = "DHCP";
constexpr const char *help_relay = "DHCP relay";
constexpr const char *help_information = "Relay agent information option";
constexpr const char *help_address = "DHCP server";
constexpr const char *help_server = "DHCP server ip address";
constexpr const char *help_option60 = "DHCP servers by vendor class (option 60)";
constexpr const char *help_string = "Vendor class";
constexpr const char *help_vendor = "Vendor class string, at most 67 characters";
constexpr const char *help_exact = "The client's vendor class equals the string";
constexpr const char *help_partial = "The client's vendor class is a part of the string";
constexpr const char *help_option61 = "DHCP servers by client identifier (option 61)";
constexpr const char *help_hex = "Client identifier";
constexpr const char *help_client_id = "Hexadecimal number that begins with 0x, at most 128 bytes";
constexpr const char *help_ifname = "Interface name";

// One list for every command, one text for every word.
constexpr const char *help_of_interface[] = {"Select an interface to configure", help_ifname, nullptr};
constexpr const char *help_of_interface_vlan[] = {"Select an interface to configure", "VLAN interface", "VLAN id",
                                                  nullptr};
constexpr const char *help_of_address[] = {help_ip, help_dhcp, help_relay, help_address, help_server, nullptr};
constexpr const char *help_of_no_address[] = {help_no,      help_ip,     help_dhcp, help_relay,
                                              help_address, help_server, nullptr};
constexpr const char *help_of_option60[] = {help_ip,      help_dhcp,   help_relay, help_option60,
                                            help_string,  help_vendor, help_exact, help_partial,
                                            help_address, help_server, nullptr};
constexpr const char *help_of_no_option60[] = {help_no,       help_ip,      help_dhcp,   help_relay,
                                               help_option60, help_string,  help_vendor, help_exact,
                                               help_partial,  help_address, help_server, nullptr};
constexpr const char *help_of_option61[] = {help_ip,        help_dhcp,    help_relay,  help_option61, help_hex,
                                            help_client_id, help_address, help_server, nullptr};
constexpr const char *help_of_no_option61[] = {help_no,  help_ip,        help_dhcp,    help_relay,  help_option61,
                                               help_hex, help_client_id, help_address, help_server, nullptr};
constexpr const char *help_of_show_option[] = {help_show,
                                               help_ip,
                                               help_dhcp,
                                               help_relay,
                                               "DHCP servers by option",
                                               "Servers by vendor class (option 60)",
                                               "Servers by client identifier (option 61)",
                                               nullptr};
constexpr const char *help_of_no_relay[] = {help_no, help_ip, help_dhcp, help_relay, nullptr};
constexpr const char *help_of_relay[] = {help_ip, help_dhcp, help_relay, nullptr};
constexpr const char *help_of_information_option[] = {
    help_ip, help_dhcp, help_relay, help_information, "Insert relay agent information into requests", nullptr};
constexpr const char *help_of_hops[] = {
    help_ip, help_dhcp, help_relay, "Hop limit of requests", "Largest hop count that is relayed", nullptr};
constexpr const char *help_of_no_information_option[] = {
    help_no, help_ip, help_dhcp, help_relay, help_information, "Insert relay agent information into requests", nullptr};
constexpr const char *help_of_policy[] = {help_ip,
                                          help_dhcp,
                                          help_relay,
                                          help_information,
                                          "Requests that carry relay agent information already",
                                          "Relay them as they are",
                                          "Drop them",
                                          "Replace the information by that of this relay",
                                          nullptr};
constexpr const char *help_of_check[] = {
    help_ip, help_dhcp, help_relay, help_information, "Check relay agent information in replies", nullptr};
constexpr const char *help_of_no_check[] = {
    help_no, help_ip, help_dhcp, help_relay, help_information, "Check relay agent information in replies", nullptr};
constexpr const char *help_of_trusted[] = {
    help_ip, help_dhcp, help_relay, help_information, "Trust relay agent information of this interface's clients",
    nullptr};
constexpr const char *help_of_trust_all[] = {
    help_ip, help_dhcp, help_relay, help_information, "Trust relay agent information of all interfaces", nullptr};
constexpr const char *help_of_no_trust_all[] = {
    help_no, help_ip, help_dhcp, help_relay, help_information, "Trust relay agent information of all interfaces",
    nullptr};
constexpr const char *help_of_no_trusted[] = {
    help_no,    help_ip,          help_dhcp,
    help_relay, help_information, "Trust relay agent information of this interface's clients",
    nullptr};
constexpr const char *help_of_show_relay[] = {help_show, help_ip, help_dhcp, help_relay, nullptr};
constexpr const char *help_of_show_trusted_sources[] = {
    help_show, help_ip, help_dhcp, help_relay, help_information, "Trusted interfaces", nullptr};
constexpr const char *help_of_show_detail[] = {
    help_show, help_ip, help_dhcp, help_relay, "Settings, sockets, counters and interfaces", nullptr};
constexpr const char *help_of_clear_counter[] = {help_show,     help_ip,   help_dhcp, "Relay agent",
                                                 "Information", "Counter", nullptr};
constexpr const char *help_of_debug[] = {"Debugging", help_ip, help_dhcp, help_relay, "0 off, 1 on", nullptr};
constexpr const char *help_of_get_basic[] = {"Dhcp information",  "Relay",    "Get",
                                             "Basic information", "Settings", nullptr};
constexpr const char *help_of_get_interface[] = {"Dhcp information", "Relay",     "Get",  "Interface",
                                                 "Settings",         help_ifname, nullptr};
constexpr const char *help_of_web_set_server[] = {"Web",       "Set",       help_dhcp, "Relay", "Ifsettings",
                                                  help_ifname, help_server, "State",   nullptr};
constexpr const char *help_of_web_set[] = {"Web",        "Set",       help_dhcp, "Relay",
                                           "Ifsettings", help_ifname, "State",   nullptr};
constexpr const char *help_of_web_delete[] = {"Web", "Delete", help_dhcp, "Relay", "Ifsettings", help_ifname, nullptr};
constexpr const char *help_of_show_xid[] = {help_show, help_ip, help_dhcp, help_relay, "Ingress ports of transactions",
                                            nullptr};
constexpr const char *help_of_show_addr_tbl[] = {help_show,       help_ip,     help_dhcp,    help_relay,
                                                 "Address table", help_ifname, "IP address", nullptr};
constexpr const char *help_of_show_trust_tbl[] = {help_show,   help_ip, help_dhcp, help_relay, "Trust interface table",
                                                  help_ifname, nullptr};

constexpr ravo_command command(const char *text, int mode, int privilege, cli_handler handler,
                               const char *const *help) {
    return {mode, privilege, {text, handler, help, {}}};
}

}  // namespace

constinit ravo_command ravo_commands[RAVO_COMMANDS] = {
    command("interface IFNAME", in_config, ordinary, ravo_cmd_interface, help_of_interface),
    command("interface vlan <1-4094>", in_config, ordinary, ravo_cmd_interface, help_of_interface_vlan),
    command("ip dhcp relay address A.B.C.D", in_interface, ordinary, ravo_cmd_address, help_of_address),
    command("no ip dhcp relay address [A.B.C.D]", in_interface, ordinary, ravo_cmd_no_address, help_of_no_address),
    command("ip dhcp relay option60 string WORD {exact-match|partial-match} address A.B.C.D", in_interface, diagnosis,
            ravo_cmd_option60, help_of_option60),
    command("no ip dhcp relay option60 [string WORD] [exact-match|partial-match] [address A.B.C.D]", in_interface,
            diagnosis, ravo_cmd_no_option60, help_of_no_option60),
    command("ip dhcp relay option61 hex WORD address A.B.C.D", in_interface, diagnosis, ravo_cmd_option61,
            help_of_option61),
    command("no ip dhcp relay option61 [hex WORD] [address A.B.C.D]", in_interface, diagnosis, ravo_cmd_no_option61,
            help_of_no_option61),
    command("show ip dhcp relay option [60|61]", in_exec, diagnosis, ravo_cmd_show_option, help_of_show_option),
    command("no ip dhcp relay", in_config, ordinary, ravo_cmd_no_relay, help_of_no_relay),
    command("ip dhcp relay", in_config, ordinary, ravo_cmd_relay, help_of_relay),
    command("ip dhcp relay information option", in_config, ordinary, ravo_cmd_information_option,
            help_of_information_option),
    command("ip dhcp relay hops <1-16>", in_config, ordinary, ravo_cmd_hops, help_of_hops),
    command("no ip dhcp relay information option", in_config, ordinary, ravo_cmd_no_information_option,
            help_of_no_information_option),
    command("ip dhcp relay information policy {keep|drop|replace}", in_config, ordinary, ravo_cmd_policy,
            help_of_policy),
    command("ip dhcp relay information check", in_config, ordinary, ravo_cmd_check, help_of_check),
    command("no ip dhcp relay information check", in_config, ordinary, ravo_cmd_no_check, help_of_no_check),
    command("ip dhcp relay information trusted", in_interface, ordinary, ravo_cmd_trusted, help_of_trusted),
    command("ip dhcp relay information trust-all", in_config, ordinary, ravo_cmd_trust_all, help_of_trust_all),
    command("no ip dhcp relay information trust-all", in_config, ordinary, ravo_cmd_no_trust_all, help_of_no_trust_all),
    command("no ip dhcp relay information trusted", in_interface, ordinary, ravo_cmd_no_trusted, help_of_no_trusted),
    command("show ip dhcp relay ", in_exec, ordinary, ravo_cmd_show_relay, help_of_show_relay),
    command("show ip dhcp relay information trusted-sources", in_exec, ordinary, ravo_cmd_show_trusted_sources,
            help_of_show_trusted_sources),
    command("show ip dhcp relay detail", in_exec, diagnosis, ravo_cmd_show_detail, help_of_show_detail),
    command("clear ip dhcp relay detail counter", in_exec, diagnosis, ravo_cmd_clear_counter, help_of_clear_counter),
    command("debug ip dhcp relay <0-1>", in_config, diagnosis, ravo_cmd_debug, help_of_debug),
    command("dhcp rely get basic settings", in_exec, front_ends, ravo_cmd_get_basic, help_of_get_basic),
    command("dhcp rely get interface settings [IFNAME]", in_exec, front_ends, ravo_cmd_get_interface,
            help_of_get_interface),
    command("web set dhcp relay ifsettings IFNAME A.B.C.D STATE", in_config, front_ends, ravo_cmd_web_set_server,
            help_of_web_set_server),
    command("web set dhcp relay ifsettings IFNAME STATE", in_config, front_ends, ravo_cmd_web_set, help_of_web_set),
    command("web delete dhcp relay ifsettings IFNAME", in_config, front_ends, ravo_cmd_web_delete, help_of_web_delete),
    command("show ip dhcp relay xid-port-mapping ", in_config, diagnosis, ravo_cmd_show_xid, help_of_show_xid),
    command("show ip dhcp relay addr_tbl <0-4094> A.B.C.D", in_exec, front_ends, ravo_cmd_show_addr_tbl,
            help_of_show_addr_tbl),
    command("show ip dhcp relay trust_tbl <0-4094>", in_exec, front_ends, ravo_cmd_show_trust_tbl,
            help_of_show_trust_tbl),
};
