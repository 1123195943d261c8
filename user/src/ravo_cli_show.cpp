// SPDX-License-Identifier: Apache-2.0
// Show and clear commands.
//
// Two kinds of output: plain lines, which a session may switch off as a whole, and lines that say which views they
// belong to (ravo_cli_view). The summary, the detail's settings and the trusted sources are of the second kind, so that
// one handler serves a person, a settings page and a program that reads values by column.
#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "addr_text.h"
#include "ravo_cli.h"
#include "ravo_cli_result.h"
#include "ravo_cli_view.h"
#include "ravo_db.h"
#include "ravo_db_if.h"
#include "ravo_db_xid.h"
#include "ravo_if_state.h"

namespace {

// Columns of the values in the keyed view.
constexpr std::int32_t column_relay = 1;
constexpr std::int32_t column_hops = 2;
constexpr std::int32_t column_check = 3;
constexpr std::int32_t column_option = 4;
constexpr std::int32_t column_policy = 5;
constexpr std::int32_t column_trust_all = 6;
constexpr std::int32_t column_servers = 7;
constexpr std::int32_t column_trusted_count = 9;

constexpr const char *state_names[] = {"disabled", "enabled"};
constexpr const char *policy_names[] = {"", "replace", "drop", "keep"};
constexpr const char *match_names[] = {"exact-match", "partial-match"};

constexpr int names_a_line = 4;

const char *state_name(std::uint32_t state) {
    return state_names[state == 1 ? 1 : 0];
}

const char *policy_name(std::uint32_t policy) {
    return policy <= RAVO_POLICY_KEEP ? policy_names[policy] : "";
}

const char *match_name(std::uint32_t rule) {
    return match_names[rule == 0 ? 0 : 1];
}

// A state as programs read it.
int state_value(std::uint32_t state) {
    return state == 1 ? 1 : 2;
}

void text_line(ravo_view *view, std::uint32_t mask, const char *text) {
    ravo_view_line(view, mask, VIEW_NO_COLUMN, "%s", text);
}

void value_line(ravo_view *view, std::int32_t column, int value) {
    ravo_view_line(view, VIEW_VALUE, column, "%d", value);
}

// Prints the heading before the first trusted interface and the names four to a line. Returns the number of names.
int show_trusted_names(ravo_view *view, const char *heading) {
    int count = 0;
    for (const iface &record : ravo_db_if_all()) {
        if (record.trusted != 1) continue;
        if (count == 0) text_line(view, VIEW_TERMINAL, heading);
        if (count % names_a_line == 0) text_line(view, VIEW_TERMINAL, "\n");
        ravo_view_line(view, VIEW_TERMINAL, VIEW_NO_COLUMN, "%-20s", record.name);
        ++count;
    }
    return count;
}

// ---- Summary ----

void show_summary_settings(ravo_view *view, const ravo_agent &agent) {
    text_line(view, VIEW_TERMINAL, "\n");
    ravo_view_line(view, VIEW_DISPLAY, VIEW_NO_COLUMN, "DHCP Relay                            :%s \n",
                   state_name(agent.relay_enable));
    ravo_view_line(view, VIEW_ALL, column_hops, "DHCP Relay Hop Count                  :%d \n",
                   static_cast<int>(agent.hops));
    value_line(view, column_relay, state_value(agent.relay_enable));
    ravo_view_line(view, VIEW_DISPLAY, VIEW_NO_COLUMN, "DHCP Relay Information Option         :%s \n",
                   state_name(agent.option_state));
    value_line(view, column_option, state_value(agent.option_state));
    // deliberate: no blank before this line's end, unlike its neighbours.
    ravo_view_line(view, VIEW_DISPLAY, VIEW_NO_COLUMN, "DHCP Relay Information Policy         :%s\n",
                   policy_name(agent.policy));
    if (agent.policy >= RAVO_POLICY_REPLACE && agent.policy <= RAVO_POLICY_KEEP)
        value_line(view, column_policy, static_cast<int>(agent.policy));
    ravo_view_line(view, VIEW_DISPLAY, VIEW_NO_COLUMN, "DHCP Relay Information Check Reply    :%s \n",
                   state_name(agent.check));
    value_line(view, column_check, state_value(agent.check));
    ravo_view_line(view, VIEW_DISPLAY, VIEW_NO_COLUMN, "DHCP Relay Information Trusted        :%s \n",
                   state_name(trust_all));
    value_line(view, column_trust_all, state_value(trust_all));
}

void show_summary_block(ravo_view *view, const iface &record) {
    if (record.server_count < 1) return;
    text_line(view, VIEW_TERMINAL, "\n");
    ravo_view_line(view, VIEW_DISPLAY, VIEW_NO_COLUMN, "%s Relay IP Address\n", record.name);
    for (const std::uint32_t server : record.server_db)
        ravo_view_line(view, VIEW_DISPLAY, VIEW_NO_COLUMN, " %s ", ravo_addr_text(server).text);
    text_line(view, VIEW_TERMINAL, "\n");
}

void show_summary_interfaces(ravo_view *view) {
    const ravo_if_walk all = ravo_db_if_all();
    if (!all.found) return;
    int total = 0;
    for (const iface &record : all) {
        for (const std::uint32_t server : record.server_db)
            if (server != 0) ++total;
        show_summary_block(view, record);
    }
    value_line(view, column_servers, total);
}

// ---- Detail ----

void show_detail_settings(ravo_view *view, const ravo_agent &agent) {
    text_line(view, VIEW_TERMINAL, "\n");
    ravo_view_line(view, VIEW_DISPLAY, VIEW_NO_COLUMN, "DHCP relay                            :%s \n",
                   state_name(agent.relay_enable));
    ravo_view_line(view, VIEW_ALL, VIEW_NO_COLUMN, "Relay Hop Count                       :%d \n",
                   static_cast<int>(agent.hops));
    ravo_view_line(view, VIEW_DISPLAY, VIEW_NO_COLUMN, "DHCP Relay Information Option         :%s \n",
                   state_name(agent.option_state));
    // deliberate: no blank before this line's end, unlike its neighbours.
    ravo_view_line(view, VIEW_DISPLAY, VIEW_NO_COLUMN, "DHCP Relay Information Policy         :%s\n",
                   policy_name(agent.policy));
    ravo_view_line(view, VIEW_DISPLAY, VIEW_NO_COLUMN, "DHCP Relay Information Check Reply    :%s \n",
                   state_name(agent.check));
    ravo_view_line(view, VIEW_DISPLAY, VIEW_NO_COLUMN, "DHCP Relay Information Trusted        :%s \n",
                   state_name(trust_all));
}

void number_line(ravo_view *view, const char *label, std::uint32_t number) {
    ravo_view_line(view, VIEW_TERMINAL, VIEW_NO_COLUMN, "%s:%d\n", label, static_cast<int>(number));
}

void show_detail_counters(ravo_view *view) {
    number_line(view, "Server_sock", static_cast<std::uint32_t>(ravo_server_sock_fd));
    number_line(view, "Raw_sock", static_cast<std::uint32_t>(ravo_raw_sock_fd));
    number_line(view, "listen_sock_fd", static_cast<std::uint32_t>(ravo_listen_sock_fd));
    const ravo_rx_counter_table &rx = ravo_rx_counters;
    number_line(view, "DHCP packet DISCOVER Rx", rx.discover);
    number_line(view, "DHCP packet OFFER Rx", rx.offer);
    number_line(view, "DHCP packet REQUEST Rx", rx.request);
    number_line(view, "DHCP packet ACK Rx", rx.ack);
    number_line(view, "DHCP packet DECLINE Rx", rx.decline);
    number_line(view, "DHCP packet NAK Rx", rx.nak);
    number_line(view, "DHCP packet INFORMRx", rx.inform);  // deliberate: no blank before "Rx"
    number_line(view, "DHCP packet RELEASE Rx", rx.release);
}

// ---- Servers by option 60 and 61 ----

void show_option60_table(struct cli *cli, const iface &record) {
    cli->print(cli->print_handle, "String               Match-type    IP address\n");
    cli->print(cli->print_handle, "=================================================\n");
    int rows = 0;
    for (const opt60_host &host : record.opt60_hosts) {
        if (host.used == 0) continue;
        cli->print(cli->print_handle, "%-21s%-14s%s\n", host.vendor, match_name(host.match_rule),
                   ravo_addr_text(host.server).text);
        ++rows;
    }
    cli->print(cli->print_handle, "Total entry: %d\n\n", rows);
}

// A client identifier as upper-case hexadecimal pairs.
struct client_id_text {
    char text[2 * sizeof opt61_host::client_id + 1];
};

client_id_text client_id_text_of(const opt61_host &host) {
    client_id_text result{};
    const std::size_t length = std::min<std::size_t>(host.client_id_len, sizeof host.client_id);
    for (std::size_t i = 0; i < length; ++i) std::snprintf(result.text + 2 * i, 3, "%02X", host.client_id[i]);
    return result;
}

void show_option61_table(struct cli *cli, const iface &record) {
    cli->print(cli->print_handle, "Hex                IP address\n");
    cli->print(cli->print_handle, "=============================\n");
    int rows = 0;
    for (const opt61_host &host : record.opt61_hosts) {
        if (host.used == 0) continue;
        cli->print(cli->print_handle, "%-19s%s\n", client_id_text_of(host).text, ravo_addr_text(host.server).text);
        ++rows;
    }
    cli->print(cli->print_handle, "Total entry: %d\n\n", rows);
}

void show_option60(struct cli *cli, const iface &record) {
    if (record.opt60_count == 0) return;
    cli->print(cli->print_handle, "%s Option 60 Relay IP address:\n", record.name);
    show_option60_table(cli, record);
}

void show_option61(struct cli *cli, const iface &record) {
    if (record.opt61_count == 0) return;
    cli->print(cli->print_handle, "%s Option 61 Relay IP address:\n", record.name);
    show_option61_table(cli, record);
}

void show_both_options(struct cli *cli, const iface &record) {
    if (record.opt60_count == 0 && record.opt61_count == 0) return;
    cli->print(cli->print_handle, "%s Option Relay IP address:\n", record.name);
    if (record.opt60_count != 0) {
        cli->print(cli->print_handle, "Option 60:\n");
        show_option60_table(cli, record);
    }
    if (record.opt61_count != 0) {
        cli->print(cli->print_handle, "\nOption 61:\n");
        show_option61_table(cli, record);
    }
}

}  // namespace

int ravo_cmd_show_relay(struct cli *cli, int, char **) {
    ravo_agent agent{};
    ravo_db_agent_get(&agent);
    ravo_view view{cli, 0};
    show_summary_settings(&view, agent);
    show_summary_interfaces(&view);
    text_line(&view, VIEW_TERMINAL, "\n");
    // deliberate: "Trusted" with a capital letter here, "trusted" in the list of its own.
    show_trusted_names(&view, "\nList of Trusted sources of relay agent information option:");
    text_line(&view, VIEW_TERMINAL, "\n\n");
    return view.result;
}

int ravo_cmd_show_detail(struct cli *cli, int, char **) {
    ravo_agent agent{};
    ravo_db_agent_get(&agent);
    ravo_view view{cli, 0};
    show_detail_settings(&view, agent);
    show_detail_counters(&view);
    if (view.result != 0) return view.result;
    for (const iface &record : ravo_db_if_all()) ravo_show_detail_block(cli, &record);
    return 0;
}

void ravo_show_detail_block(struct cli *cli, const iface *record) {
    if (!ravo_cli_prints(cli)) return;
    const cli_print print = cli->print;
    void *out = cli->print_handle;
    if (record == nullptr) {
        print(out, "\n\nempty");
        return;
    }
    constexpr const char *rule = "============================================================\n";
    const std::uint8_t *mac = record->if_mac;
    print(out, "\n\n");
    print(out, "%s", rule);
    print(out, "%s Relay IP Address\n", record->name);
    for (const std::uint32_t server : record->server_db) print(out, "(%s) ", ravo_addr_text(server).text);
    print(out, "\n");
    print(out, "interface index:%u\n", record->ifindex);
    print(out, "if_ip:%s\n", ravo_addr_text(record->if_ip).text);
    print(out, "if_mac:%02x.%02x.%02x.%02x.%02x.%02x.%02x.%02x.%02x.%02x.%02x.%02x\n", mac[0], mac[1], mac[2], mac[3],
          mac[4], mac[5], mac[6], mac[7], mac[8], mac[9], mac[10], mac[11]);
    print(out, "%s", rule);
}

int ravo_cmd_show_trusted_sources(struct cli *cli, int, char **) {
    ravo_view view{cli, 0};
    const int count = show_trusted_names(&view, "\nList of trusted sources of relay agent information option:");
    if (count != 0) ravo_view_line(&view, VIEW_TERMINAL, VIEW_NO_COLUMN, "\nTotal Entries: %d\n", count);
    ravo_view_line(&view, VIEW_VALUE, column_trusted_count, "%d\n", count);
    return view.result;
}

int ravo_cmd_show_option(struct cli *cli, int argc, char **argv) {
    if (!ravo_cli_prints(cli)) return 0;
    const bool only60 = argc > 0 && std::strcmp(argv[0], "60") == 0;
    const bool only61 = argc > 0 && !only60;
    for (const iface &record : ravo_db_if_all()) {
        if (only60)
            show_option60(cli, record);
        else if (only61)
            show_option61(cli, record);
        else
            show_both_options(cli, record);
    }
    if (!only60 && !only61) cli->print(cli->print_handle, "\n\n");
    return 0;
}

int ravo_cmd_show_xid(struct cli *cli, int, char **) {
    if (!ravo_cli_prints(cli)) return 0;
    int count = 0;
    xid_entry entry;
    for (int found = ravo_db_xid_get_first(&entry); found != 0; found = ravo_db_xid_go_on(&entry)) {
        cli->print(cli->print_handle, "Xid:");
        cli->print(cli->print_handle, "%X\n", entry.xid);
        cli->print(cli->print_handle, "Module id: %d\n", static_cast<int>(entry.module));
        cli->print(cli->print_handle, "Ingress port: %d\n\n", static_cast<int>(entry.port));
        ++count;
    }
    cli->print(cli->print_handle, "Total Entries: %d\n", count);
    return 0;
}

int ravo_cmd_clear_counter(struct cli *, int, char **) {
    ravo_rx_counters = {};
    return 0;
}
