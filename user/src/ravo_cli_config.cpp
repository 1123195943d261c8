// SPDX-License-Identifier: Apache-2.0
// Configuration commands.
//
// Every handler works the same way: fetch a copy of the settings or of the current interface's record, change it, store
// it back whole, and show the result code. There is no commit step; a change counts from the next message on.
#include <arpa/inet.h>

#include <cctype>
#include <cstdlib>
#include <cstring>

#include "if_utl.h"
#include "nsm.h"
#include "ravo_cli.h"
#include "ravo_cli_result.h"
#include "ravo_db.h"
#include "ravo_db_if.h"
#include "ravo_if_option.h"
#include "ravo_if_server.h"
#include "ravo_if_socket.h"
#include "ravo_if_state.h"
#include "trace.h"

std::uint32_t debug_flag = 0;

namespace {

constexpr std::uint32_t store_failed = 1;  // a code without a text of its own

constexpr const char *client_id_prefix = "0x";
constexpr std::size_t client_id_prefix_size = 2;
constexpr std::size_t client_id_digits_limit = 257;

// Sets one global setting. A value that is set already is reported as such.
int change_setting(cli *cli, std::uint32_t ravo_agent::*setting, std::uint32_t value) {
    ravo_agent agent{};
    ravo_db_agent_get(&agent);
    if (agent.*setting == value) return ravo_show_result(cli, RAVO_ERR_SAME_CONFIG);
    agent.*setting = value;
    return ravo_show_result(cli, ravo_db_agent_set(&agent));
}

// deliberate: handlers differ in the interface number that a new record starts with.
enum class new_ifindex { by_name, of_interface, zero };

// The record of an interface: the stored one, or a new one that is not stored yet.
iface prepare_record(const struct interface *ifp, new_ifindex source) {
    iface record = ravo_db_if_named(ifp->name);
    if (ravo_db_if_get_or_new(&record) != 0) return record;
    if (source == new_ifindex::by_name) record.ifindex = if_utl_ifname_to_ifindex(record.name);
    if (source == new_ifindex::of_interface) record.ifindex = ifp->ifindex;
    return record;
}

int store_and_show(cli *cli, const iface &record, std::uint32_t result) {
    if (ravo_db_if_add(&record) == 0) result = store_failed;
    return ravo_show_result(cli, result);
}

// Tells whether the session has a current interface; it has none after a name that cannot be one.
bool has_interface(const cli *cli) {
    return cli->ifp != nullptr;
}

// A text that a host's entry cannot hold whole would be cut to another vendor class than the operator named.
bool vendor_fits(cli *cli, const char *vendor) {
    constexpr std::size_t most = sizeof opt60_host::vendor - 1;
    if (std::strlen(vendor) <= most) return true;
    if (ravo_cli_prints(cli))
        cli->print(cli->print_handle, "%% Vendor class string must not exceed %d characters\n", static_cast<int>(most));
    return false;
}

bool all_hex(const char *digits) {
    for (; *digits != '\0'; ++digits)
        if (std::isxdigit(static_cast<unsigned char>(*digits)) == 0) return false;
    return true;
}

// Checks a client identifier as it was typed, and prints what is wrong with it.
bool client_id_valid(cli *cli, const char *word) {
    const bool prints = ravo_cli_prints(cli);
    const std::size_t length = std::strlen(word);
    // deliberate: unsigned, so that an empty word wraps and counts as too long.
    const std::size_t digits = length % 2 != 0 ? length - 1 : length - 2;
    if (digits > client_id_digits_limit) {
        if (prints)
            cli->print(cli->print_handle, "%% Client-id hex number must not exceed %d bytes\n",
                       static_cast<int>(RAVO_CLIENT_ID_SIZE));
        return false;
    }
    if (std::strncmp(word, client_id_prefix, client_id_prefix_size) != 0) {
        if (prints) cli->print(cli->print_handle, "%% Client-id hex number must begin with \"0x\"\n");
        return false;
    }
    if (!all_hex(word + client_id_prefix_size)) {
        if (prints) cli->print(cli->print_handle, "%% Client-id must be hex number\n");
        return false;
    }
    if (length == client_id_prefix_size) {
        if (prints) cli->print(cli->print_handle, "%% Invalid client-id\n");
        return false;
    }
    return true;
}

std::uint32_t policy_of(const char *word) {
    if (std::strcmp(word, "keep") == 0) return RAVO_POLICY_KEEP;
    if (std::strcmp(word, "drop") == 0) return RAVO_POLICY_DROP;
    return RAVO_POLICY_REPLACE;
}

// The criteria of "no ip dhcp relay option60"; null: not given.
struct option60_criteria {
    const char *vendor;
    const char *match;
    const char *address;
};

// Tells the forms of the command apart: by the count of their words, and by whether the first is "string".
option60_criteria option60_criteria_of(int argc, char **argv) {
    const bool by_string = argc > 0 && std::strcmp(argv[0], "string") == 0;
    switch (argc) {
        case 1:
            return {.vendor = nullptr, .match = argv[0], .address = nullptr};
        case 2:
            if (by_string) return {.vendor = argv[1], .match = nullptr, .address = nullptr};
            return {.vendor = nullptr, .match = nullptr, .address = argv[1]};
        case 3:
            if (by_string) return {.vendor = argv[1], .match = argv[2], .address = nullptr};
            return {.vendor = nullptr, .match = argv[0], .address = argv[2]};
        case 4:
            return {.vendor = argv[1], .match = nullptr, .address = argv[3]};
        case 5:
            return {.vendor = argv[1], .match = argv[2], .address = argv[4]};
        default:
            return {.vendor = nullptr, .match = nullptr, .address = nullptr};
    }
}

}  // namespace

// ---- Global settings ----

int ravo_cmd_relay(struct cli *cli, int, char **) {
    (void)cli;
    ravo_agent agent{};
    ravo_db_agent_get(&agent);
    if (agent.relay_enable == 1) return 0;
    agent.relay_enable = 1;
    ravo_db_agent_set(&agent);
    // deliberate: twice, and only the second result counts; what is open already stays open.
    (void)RAVO_IF_Create_fd();
    return RAVO_IF_Create_fd() != RAVO_OK ? 1 : 0;
}

int ravo_cmd_no_relay(struct cli *cli, int, char **) {
    ravo_agent agent{};
    ravo_db_agent_get(&agent);
    if (agent.relay_enable == 0) return 0;
    ravo_if_close_all_fd();
    agent.relay_enable = 0;
    return ravo_show_result(cli, ravo_db_agent_set(&agent));
}

int ravo_cmd_information_option(struct cli *cli, int, char **) {
    return change_setting(cli, &ravo_agent::option_state, 1);
}

int ravo_cmd_no_information_option(struct cli *cli, int, char **) {
    return change_setting(cli, &ravo_agent::option_state, 0);
}

int ravo_cmd_hops(struct cli *cli, int, char **argv) {
    return change_setting(cli, &ravo_agent::hops, static_cast<std::uint32_t>(std::atoi(argv[0])));
}

int ravo_cmd_policy(struct cli *cli, int, char **argv) {
    return change_setting(cli, &ravo_agent::policy, policy_of(argv[0]));
}

int ravo_cmd_check(struct cli *cli, int, char **) {
    return change_setting(cli, &ravo_agent::check, 1);
}

int ravo_cmd_no_check(struct cli *cli, int, char **) {
    return change_setting(cli, &ravo_agent::check, 0);
}

int ravo_cmd_trust_all(struct cli *, int, char **) {
    for (const struct interface *ifp = ifg_first(); ifp != nullptr; ifp = ifg_next(ifp)) {
        if (ifp->hw_type != NSM_IF_TYPE_VLAN) continue;
        iface record = prepare_record(ifp, new_ifindex::by_name);
        record.trusted = 1;
        (void)ravo_db_if_add(&record);  // deliberate: the others are marked whether or not this one could be
    }
    trust_all = 1;
    return 0;
}

// deliberate: also takes the trust of interfaces that were marked one by one.
int ravo_cmd_no_trust_all(struct cli *, int, char **) {
    for (iface record : ravo_db_if_all()) {
        if (record.trusted == 0) continue;
        record.trusted = 0;
        (void)ravo_db_if_add(&record);  // the record is stored already, so nothing can fail
    }
    trust_all = 0;
    return 0;
}

std::uint32_t RAVO_IF_Enable_Debug_Flag(std::uint32_t value) {
    debug_flag = value;
    ravo_print(ravo::level_trace, "%s,Enable_Debug_Print=%d\n", __func__, static_cast<int>(debug_flag));
    return debug_flag;
}

int ravo_cmd_debug(struct cli *, int, char **argv) {
    RAVO_IF_Enable_Debug_Flag(static_cast<std::uint32_t>(std::atoi(argv[0])));
    return 0;
}

// ---- Interfaces ----

int ravo_cmd_interface(struct cli *cli, int, char **argv) {
    cli->ifp = ifg_get_by_name(argv[0]);
    cli->mode = cli_get_ifmode(argv[0]);
    return 0;
}

int ravo_cmd_address(struct cli *cli, int, char **argv) {
    if (!has_interface(cli)) return 1;
    iface record = prepare_record(cli->ifp, new_ifindex::by_name);
    const std::uint32_t result = RAVO_IF_Add_Server_Host(&record, argv[0]);
    return store_and_show(cli, record, result);
}

int ravo_cmd_no_address(struct cli *cli, int argc, char **argv) {
    if (!has_interface(cli)) return 1;
    iface record = ravo_db_if_named(cli->ifp->name);
    if (ravo_db_if_get(&record) == 0) return 0;
    // An optional group passes its keyword too: the address is the last word.
    const std::uint32_t result = ravo_if_del_server_host(&record, argc > 0 ? argv[argc - 1] : nullptr);
    if (ravo_db_if_add(&record) == 0) return 1;
    return ravo_show_result(cli, result);
}

int ravo_cmd_trusted(struct cli *cli, int, char **) {
    if (!has_interface(cli)) return 1;
    iface record = prepare_record(cli->ifp, new_ifindex::by_name);
    record.trusted = 1;
    return store_and_show(cli, record, RAVO_OK);
}

int ravo_cmd_no_trusted(struct cli *cli, int, char **) {
    if (!has_interface(cli)) return 1;
    iface record = prepare_record(cli->ifp, new_ifindex::zero);
    record.trusted = 0;
    return store_and_show(cli, record, RAVO_OK);
}

int ravo_cmd_option60(struct cli *cli, int, char **argv) {
    if (!has_interface(cli) || !vendor_fits(cli, argv[0])) return 1;
    iface record = prepare_record(cli->ifp, new_ifindex::of_interface);
    const std::uint32_t rule = std::strcmp(argv[1], "exact-match") == 0 ? RAVO_RULE_EXACT : RAVO_RULE_PARTIAL;
    const std::uint32_t result = RAVO_IF_Add_Option60_Server_Host(&record, argv[0], rule, argv[2]);
    return store_and_show(cli, record, result);
}

int ravo_cmd_no_option60(struct cli *cli, int argc, char **argv) {
    if (!has_interface(cli)) return 1;
    const option60_criteria given = option60_criteria_of(argc, argv);
    iface record = prepare_record(cli->ifp, new_ifindex::by_name);
    const std::uint32_t result = ravo_if_del_option60_server_host(&record, given.vendor, given.match, given.address);
    return store_and_show(cli, record, result);
}

int ravo_cmd_option61(struct cli *cli, int, char **argv) {
    if (!has_interface(cli) || !client_id_valid(cli, argv[0])) return 1;
    iface record = prepare_record(cli->ifp, new_ifindex::by_name);
    const std::uint32_t result = RAVO_IF_Add_Option61_Server_Host(&record, argv[0] + client_id_prefix_size, argv[1]);
    return store_and_show(cli, record, result);
}

int ravo_cmd_no_option61(struct cli *cli, int argc, char **argv) {
    if (!has_interface(cli)) return 1;
    const bool by_id = argc == 4 || (argc == 2 && std::strcmp(argv[0], "hex") == 0);
    const bool by_address = argc == 4 || (argc == 2 && std::strcmp(argv[0], "address") == 0);
    std::uint8_t client_id[RAVO_CLIENT_ID_SIZE] = {};
    if (by_id) {
        if (!client_id_valid(cli, argv[1])) return 1;
        (void)ravo_client_id_bytes(argv[1] + client_id_prefix_size, client_id, sizeof client_id);  // only bytes count
    }
    iface record = prepare_record(cli->ifp, new_ifindex::by_name);
    std::uint32_t result = RAVO_OK;
    if (argc == 0 || by_id || by_address)
        result = ravo_if_del_option61_server_host(&record, by_id ? client_id : nullptr,
                                                  by_address ? argv[argc - 1] : nullptr);
    return store_and_show(cli, record, result);
}
