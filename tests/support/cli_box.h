// SPDX-License-Identifier: Apache-2.0
// A command line to try: the relay's commands with handlers that only note that they were called, and sessions whose
// output is kept.
#ifndef TESTS_CLI_BOX_H
#define TESTS_CLI_BOX_H

#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "all_commands.h"
#include "cli.h"
#include "cli/command_line.h"
#include "nsm.h"

namespace cli_box {

struct relay_command {
    int mode;
    int privilege;
    const char *text;
    const char *typed;                   // a line that is this command
    std::vector<std::string> arguments;  // what its handler gets for that line
};

// All commands of the relay, in the order they are installed.
inline const std::vector<relay_command> &relay_commands() {
    using words = std::vector<std::string>;
    static const std::vector<relay_command> rows = {
        {5, 2, "interface IFNAME", "interface vlan10", words{"vlan10"}},
        {5, 2, "interface vlan <1-4094>", "interface vlan 10", words{"10"}},
        {34, 2, "ip dhcp relay address A.B.C.D", "ip dhcp relay address 10.0.0.1", words{"10.0.0.1"}},
        {34, 2, "no ip dhcp relay address [A.B.C.D]", "no ip dhcp relay address 10.0.0.1", words{"10.0.0.1"}},
        {34, 20, "ip dhcp relay option60 string WORD {exact-match|partial-match} address A.B.C.D",
         "ip dhcp relay option60 string ab exact-match address 10.0.0.1", words{"ab", "exact-match", "10.0.0.1"}},
        {34, 20, "no ip dhcp relay option60 [string WORD] [exact-match|partial-match] [address A.B.C.D]",
         "no ip dhcp relay option60 string ab partial-match address 10.0.0.1",
         words{"string", "ab", "partial-match", "address", "10.0.0.1"}},
        {34, 20, "ip dhcp relay option61 hex WORD address A.B.C.D", "ip dhcp relay option61 hex 0x12 address 10.0.0.1",
         words{"0x12", "10.0.0.1"}},
        {34, 20, "no ip dhcp relay option61 [hex WORD] [address A.B.C.D]",
         "no ip dhcp relay option61 hex 0x12 address 10.0.0.1", words{"hex", "0x12", "address", "10.0.0.1"}},
        {4, 20, "show ip dhcp relay option [60|61]", "show ip dhcp relay option 61", words{"61"}},
        {5, 2, "no ip dhcp relay", "no ip dhcp relay", words{}},
        {5, 2, "ip dhcp relay", "ip dhcp relay", words{}},
        {5, 2, "ip dhcp relay information option", "ip dhcp relay information option", words{}},
        {5, 2, "ip dhcp relay hops <1-16>", "ip dhcp relay hops 16", words{"16"}},
        {5, 2, "no ip dhcp relay information option", "no ip dhcp relay information option", words{}},
        {5, 2, "ip dhcp relay information policy {keep|drop|replace}", "ip dhcp relay information policy drop",
         words{"drop"}},
        {5, 2, "ip dhcp relay information check", "ip dhcp relay information check", words{}},
        {5, 2, "no ip dhcp relay information check", "no ip dhcp relay information check", words{}},
        {34, 2, "ip dhcp relay information trusted", "ip dhcp relay information trusted", words{}},
        {5, 2, "ip dhcp relay information trust-all", "ip dhcp relay information trust-all", words{}},
        {5, 2, "no ip dhcp relay information trust-all", "no ip dhcp relay information trust-all", words{}},
        {34, 2, "no ip dhcp relay information trusted", "no ip dhcp relay information trusted", words{}},
        {4, 2, "show ip dhcp relay ", "show ip dhcp relay", words{}},
        {4, 2, "show ip dhcp relay information trusted-sources", "show ip dhcp relay information trusted-sources",
         words{}},
        {4, 20, "show ip dhcp relay detail", "show ip dhcp relay detail", words{}},
        {4, 20, "clear ip dhcp relay detail counter", "clear ip dhcp relay detail counter", words{}},
        {5, 20, "debug ip dhcp relay <0-1>", "debug ip dhcp relay 1", words{"1"}},
        {4, 31, "dhcp rely get basic settings", "dhcp rely get basic settings", words{}},
        {4, 31, "dhcp rely get interface settings [IFNAME]", "dhcp rely get interface settings vlan10",
         words{"vlan10"}},
        {5, 31, "web set dhcp relay ifsettings IFNAME A.B.C.D STATE", "web set dhcp relay ifsettings vlan10 10.0.0.1 1",
         words{"vlan10", "10.0.0.1", "1"}},
        {5, 31, "web set dhcp relay ifsettings IFNAME STATE", "web set dhcp relay ifsettings vlan10 -",
         words{"vlan10", "-"}},
        {5, 31, "web delete dhcp relay ifsettings IFNAME", "web delete dhcp relay ifsettings vlan10", words{"vlan10"}},
        {5, 20, "show ip dhcp relay xid-port-mapping ", "show ip dhcp relay xid-port-mapping", words{}},
        {4, 31, "show ip dhcp relay addr_tbl <0-4094> A.B.C.D", "show ip dhcp relay addr_tbl 0 0.0.0.0",
         words{"0", "0.0.0.0"}},
        {4, 31, "show ip dhcp relay trust_tbl <0-4094>", "show ip dhcp relay trust_tbl 4094", words{"4094"}},
    };
    return rows;
}

// A call of a handler.
struct call {
    std::size_t command;  // its place in relay_commands()
    std::vector<std::string> arguments;
    std::string interface;  // the current one, empty without one
    int mode;
    bool operator==(const call &) const = default;
};
inline std::vector<call> calls;

// What the next handlers do: print this, return that.
inline std::string handler_prints;
inline int handler_returns = 0;

template <std::size_t command>
int note_call(struct cli *cli, int argc, char **argv) {
    calls.push_back({command, {argv, argv + argc}, cli->ifp == nullptr ? "" : cli->ifp->name, cli->mode});
    if (command < 2) {  // "interface ..."
        cli->ifp = ifg_get_by_name(argv[0]);
        cli->mode = cli_get_ifmode(argv[0]);
        return 0;
    }
    if (!handler_prints.empty()) cli->print(cli->print_handle, "%s", handler_prints.c_str());
    return handler_returns;
}

template <std::size_t... command>
constexpr std::array<cli_handler, sizeof...(command)> make_handlers(std::index_sequence<command...>) {
    return {note_call<command>...};
}

// Installs the platform's commands, and the relay's as the relay does. To be called once in a process.
inline bool install_commands() {
    constexpr std::size_t count = 34;
    static constexpr auto handlers = make_handlers(std::make_index_sequence<count>());
    static std::array<cli_element, count> elements{};
    cli_tree *tree = ravo::cli::library_globals()->tree;
    install_platform();
    bool good = relay_commands().size() == count && if_range_cli_init(tree) == 0 &&
                cli_install_default(tree, CLI_MODE_INTERFACE) == 0;
    for (std::size_t i = 0; i < relay_commands().size() && i < count; ++i) {
        const relay_command &row = relay_commands()[i];
        elements[i].text = row.text;
        elements[i].handler = handlers[i];
        good = cli_install_gen(tree, row.mode, row.privilege, 0, &elements[i]) == 0 && good;
    }
    return good;
}

// Installs them once. Returns whether all could be.
inline bool have_commands() {
    static const bool installed = install_commands();
    return installed;
}

// A session whose text is kept, in a tree with the relay's commands. Each starts with no noted calls.
struct shell {
    std::string text;
    ravo::cli::session_ptr session;

    explicit shell(int privilege = 31) {
        if (!have_commands()) text = "the relay's commands cannot be installed\n";
        calls.clear();
        handler_prints.clear();
        handler_returns = 0;
        ravo::cli::session_output output;
        output.text = [this](std::string_view piece) {
            text += piece;
            return 0;
        };
        session = ravo::cli::session_open(std::move(output), privilege, "tester");
    }
    shell(const shell &) = delete;
    shell &operator=(const shell &) = delete;

    int run(std::string_view line) { return ravo::cli::session_run(*session, line); }
    // What a line prints.
    std::string print(std::string_view line) {
        text.clear();
        (void)run(line);
        return std::exchange(text, {});
    }
    int mode() const { return ravo::cli::session_mode(*session); }
    // Goes to global configuration mode, or to the mode of an interface.
    void configure() { (void)run("configure terminal"); }
    void configure(std::string_view interface) {
        configure();
        (void)run("interface " + std::string(interface));
        calls.clear();
    }
    void enter(int wanted) {
        if (wanted == CLI_MODE_CONFIGURATION) configure();
        if (wanted == CLI_MODE_INTERFACE) configure("vlan7");
    }
};

// The text of a caret line and what follows it.
inline std::string invalid_at(std::size_t column) {
    return std::string(column, ' ') + "^\n% Invalid input detected at '^' marker.\n";
}

}  // namespace cli_box

#endif
