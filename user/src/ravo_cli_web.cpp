// SPDX-License-Identifier: Apache-2.0
// Commands for the switch's web and SNMP front ends.
//
// The web pages read fixed records and change an interface's servers and trust; SNMP walks two tables, the servers of
// all interfaces and the trusted interfaces. A table is four functions over its key; the bridge drives the walk.
#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "addr_text.h"
#include "if_utl.h"
#include "nsm.h"
#include "ravo_cli.h"
#include "ravo_cli_result.h"
#include "ravo_cli_view.h"
#include "ravo_db.h"
#include "ravo_db_if.h"
#include "ravo_if_server.h"
#include "uib.h"

namespace {

constexpr int vlan_id_first = 1;
constexpr int vlan_id_last = 4094;
constexpr std::uint32_t store_failed = 1;

// Columns of a row's value.
constexpr std::int32_t column_trust_row = 2;
constexpr std::int32_t column_address_row = 3;

// ---- Records for the web pages, integers in host byte order ----

struct web_basic_settings {
    std::uint32_t relay_enable;
    std::uint32_t trust_all;
    std::uint32_t option_state;
    std::uint32_t check;
    std::uint32_t hops;
    std::uint32_t policy;  // 1 to 3, else 0
};

static_assert(sizeof(web_basic_settings) == 24);

struct web_interface_settings {
    char name[32];
    std::uint32_t trusted;
    char servers[544];  // dotted addresses joined by ", "
};

static_assert(sizeof(web_interface_settings) == 580 && offsetof(web_interface_settings, servers) == 36);

// deliberate: the hop limit says how many entries of the server table are listed, empty ones as 0.0.0.0.
void join_servers(const iface &record, std::uint32_t hops, web_interface_settings *out) {
    const std::uint32_t listed = std::min(hops, static_cast<std::uint32_t>(RAVO_SERVERS));
    std::size_t used = 0;
    for (std::uint32_t i = 0; i < listed; ++i)
        used += static_cast<std::size_t>(std::snprintf(out->servers + used, sizeof out->servers - used, "%s%s",
                                                       i == 0 ? "" : ", ", ravo_addr_text(record.server_db[i]).text));
}

// ---- Interfaces by name and number ----

// The walk from the record behind the one of this name on: the web pages name the interface they have.
ravo_if_walk walk_behind(const char *name) {
    iface record = ravo_db_if_named(name);
    if (!ravo_db_if_name_fits(name) || ravo_db_if_get(&record) == 0) return {record, false};
    return ravo_db_if_behind(record);
}

bool system_interface_exists(const char *name) {
    return ravo_db_if_name_fits(name) && ifg_lookup_by_index(if_utl_ifname_to_ifindex(name)) != nullptr;
}

// The record of the interface with this number. Returns false when there is none.
bool find_record(std::uint32_t ifindex, iface *record) {
    *record = ravo_db_if_numbered(ifindex);
    return record->name[0] != '\0' && ravo_db_if_get(record) != 0;
}

// The number under which a record is in the tables. A record made before its number was known takes that of its
// name: a row's key must lead back to its record, or a walk would never end.
std::uint32_t row_ifindex(const iface &record) {
    return record.ifindex != 0 ? record.ifindex : if_utl_ifname_to_ifindex(record.name);
}

// ---- Address table: the servers of all interfaces ----

struct address_row_key {
    std::uint32_t ifindex;
    std::uint32_t address;  // network byte order
};

static_assert(sizeof(address_row_key) == 8);

// Index of the first slot from start on that a test accepts, RAVO_SERVERS for none.
template <typename Test>
int find_slot(const iface &record, int start, Test test) {
    for (int i = start; i < RAVO_SERVERS; ++i)
        if (test(record.server_db[i])) return i;
    return RAVO_SERVERS;
}

int address_get_exact(void *argument) {
    const auto *key = static_cast<const address_row_key *>(argument);
    iface record;
    if (!find_record(key->ifindex, &record)) return 0;
    const int slot = find_slot(record, 0, [key](std::uint32_t server) { return server == key->address; });
    return slot < RAVO_SERVERS ? 1 : 0;
}

// Puts the first row of a record, of its slots from start on, into the key. Returns false when it has none.
bool take_row(const iface &record, int start, address_row_key *key) {
    const int slot = find_slot(record, start, [](std::uint32_t server) { return server != 0; });
    const std::uint32_t ifindex = row_ifindex(record);
    if (slot == RAVO_SERVERS || ifindex == 0) return false;
    *key = {ifindex, record.server_db[slot]};
    return true;
}

int address_get_next(void *argument) {
    auto *key = static_cast<address_row_key *>(argument);
    ravo_if_walk walk = ravo_db_if_all();
    if (key->ifindex != 0) {
        iface record;
        if (!find_record(key->ifindex, &record)) return 0;
        const int slot = find_slot(record, 0, [key](std::uint32_t server) { return server == key->address; });
        if (slot == RAVO_SERVERS) return 0;
        if (take_row(record, slot + 1, key)) return 1;
        walk = ravo_db_if_behind(record);
    }
    for (const iface &record : walk)
        if (take_row(record, 0, key)) return 1;
    return 0;
}

int address_put_row(struct cli *cli, void *key) {
    (void)uib_snmp_key_send(cli, key, sizeof(address_row_key));  // a session that is gone takes no value either
    ravo_view view{cli, 0};
    ravo_view_line(&view, VIEW_VALUE, column_address_row, "%d\n", 1);
    return view.result;
}

// ---- Trust table: the trusted interfaces ----

struct trust_row_key {
    std::uint32_t ifindex;
};

static_assert(sizeof(trust_row_key) == 4);

int trust_get_exact(void *argument) {
    auto *key = static_cast<trust_row_key *>(argument);
    iface record;
    if (!find_record(key->ifindex, &record) || record.trusted != 1) return 0;
    key->ifindex = row_ifindex(record);
    return 1;
}

int trust_get_next(void *argument) {
    auto *key = static_cast<trust_row_key *>(argument);
    ravo_if_walk walk = ravo_db_if_all();
    if (key->ifindex != 0) {
        iface record;
        if (!find_record(key->ifindex, &record)) return 0;
        walk = ravo_db_if_behind(record);
    }
    for (const iface &record : walk) {
        const std::uint32_t ifindex = row_ifindex(record);
        if (record.trusted != 1 || ifindex == 0) continue;
        key->ifindex = ifindex;
        return 1;
    }
    return 0;
}

int trust_put_row(struct cli *cli, void *key) {
    (void)uib_snmp_key_send(cli, key, sizeof(trust_row_key));  // a session that is gone takes no value either
    ravo_view view{cli, 0};
    ravo_view_line(&view, VIEW_VALUE, column_trust_row, "%d", 1);
    return view.result;
}

// ---- Changes by the web pages ----

// Reads STATE into the record's trust. Returns false, and prints a line, when it is no state.
bool set_trust(struct cli *cli, const char *state, iface *record) {
    int ok = 0;
    const int value = cmd_str2int(state, &ok);
    if (*state == '-' || ok == 0) {
        if (ravo_cli_prints(cli)) cli->print(cli->print_handle, "%% Invalid %s value\n", "Enabled");
        return false;
    }
    record->trusted = value != 0 ? 1 : 0;
    return true;
}

// Fetches the record of an interface of the switch, or makes a new one, and sets its trust. Returns false when there is
// no such interface or STATE is none.
bool prepare_web_record(struct cli *cli, const char *name, const char *state, iface *record) {
    if (!system_interface_exists(name)) return false;
    *record = ravo_db_if_named(name);
    if (ravo_db_if_get_or_new(record) == 0) record->ifindex = if_utl_ifname_to_ifindex(name);
    return set_trust(cli, state, record);
}

}  // namespace

std::uint32_t ravo_web_code_of(std::uint32_t result) {
    switch (result) {
        case RAVO_ERR_NO_IP:
            return 302021;
        case RAVO_ERR_SERVER_IP:
            return 302020;
        case RAVO_ERR_SERVER_EXISTS:
            return 302022;
        case RAVO_ERR_SERVER_FULL:
            return 302023;
        case RAVO_ERR_NO_SERVER:
            return 302024;
        case RAVO_ERR_SAME_CONFIG:
            return 302025;
        default:
            return result;
    }
}

int ravo_check_vlan_id(struct cli *cli, const char *text) {
    int ok = 0;
    const int value = cmd_str2int(text, &ok);
    if (ok != 0 && value >= vlan_id_first && value <= vlan_id_last) return 0;
    if (ravo_cli_prints(cli)) cli->print(cli->print_handle, "%% Invalid %s value\n", "VLAN-ID");
    return 1;
}

int ravo_cmd_get_basic(struct cli *cli, int, char **) {
    ravo_agent agent{};
    ravo_db_agent_get(&agent);
    web_basic_settings settings{};
    settings.relay_enable = agent.relay_enable == 1 ? 1 : 0;
    settings.trust_all = trust_all == 1 ? 1 : 0;
    settings.option_state = agent.option_state;
    settings.check = agent.check;
    settings.hops = agent.hops;
    if (agent.policy <= RAVO_POLICY_KEEP) settings.policy = agent.policy;
    (void)UIB_WEB_Msg_Send(cli, &settings, sizeof settings);  // fails only when nobody is left to read it
    return 0;
}

int ravo_cmd_get_interface(struct cli *cli, int argc, char **argv) {
    const ravo_if_walk walk = argc > 0 ? walk_behind(argv[0]) : ravo_db_if_all();
    if (!walk.found) return 1;
    ravo_agent agent{};
    ravo_db_agent_get(&agent);
    web_interface_settings settings{};
    static_assert(sizeof settings.name > sizeof iface::name);
    std::memcpy(settings.name, (*walk).name, sizeof iface::name);
    settings.trusted = (*walk).trusted != 0 ? 1 : 0;
    join_servers(*walk, agent.hops, &settings);
    (void)UIB_WEB_Msg_Send(cli, &settings, sizeof settings);  // fails only when nobody is left to read it
    return 0;
}

// "... IFNAME A.B.C.D STATE" adds a server and sets the trust, "... IFNAME STATE" sets the trust only.
int ravo_cmd_web_set_server(struct cli *cli, int, char **argv) {
    iface record;
    if (!prepare_web_record(cli, argv[0], argv[2], &record)) return 1;
    std::uint32_t result = ravo_web_code_of(RAVO_IF_Add_Server_Host(&record, argv[1]));
    if (ravo_db_if_add(&record) == 0) result = store_failed;
    return static_cast<int>(result);
}

int ravo_cmd_web_set(struct cli *cli, int, char **argv) {
    iface record;
    if (!prepare_web_record(cli, argv[0], argv[1], &record)) return 1;
    return ravo_db_if_add(&record) != 0 ? 0 : 1;
}

int ravo_cmd_web_delete(struct cli *cli, int, char **argv) {
    if (!system_interface_exists(argv[0])) return 1;
    iface record = ravo_db_if_named(argv[0]);
    std::uint32_t result = RAVO_OK;
    if (ravo_db_if_get_or_new(&record) != 0) result = ravo_if_del_server_host(&record, nullptr);
    record.trusted = 0;
    if (ravo_db_if_add(&record) == 0) result = store_failed;
    return ravo_show_result(cli, result);
}

int ravo_cmd_show_addr_tbl(struct cli *cli, int, char **argv) {
    in_addr address{};
    inet_aton(argv[1], &address);
    address_row_key key{static_cast<std::uint32_t>(std::atoi(argv[0])), address.s_addr};
    uib_table table{};
    table.key = &key;
    table.get_exact = address_get_exact;
    table.get_next = address_get_next;
    table.put_row = address_put_row;
    return UIB_OUT_TABLE_ENTRIES(cli, &table);
}

int ravo_cmd_show_trust_tbl(struct cli *cli, int, char **argv) {
    trust_row_key key{static_cast<std::uint32_t>(std::atoi(argv[0]))};
    uib_table table{};
    table.key = &key;
    table.get_exact = trust_get_exact;
    table.get_next = trust_get_next;
    table.put_row = trust_put_row;
    return UIB_OUT_TABLE_ENTRIES(cli, &table);
}
