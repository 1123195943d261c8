// SPDX-License-Identifier: Apache-2.0
// The relay's data as plain records for the platform: copies of settings, interfaces and transactions, and the
// operations of local relay, which no command of the relay's own reaches.
#include "ravo_access.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iterator>

#include "if_utl.h"
#include "ravo_db.h"
#include "ravo_db_if.h"
#include "ravo_db_xid.h"
#include "ravo_if_local.h"
#include "ravo_if_state.h"

namespace {

// ---- What crosses the boundary, field by field ----

static_assert(RELAY_ACCESS_SERVERS == RAVO_SERVERS && RELAY_ACCESS_VLANS == RAVO_LOCAL_RELAY_VLANS);
static_assert(offsetof(relay_settings, relay_enable) == 0 && offsetof(relay_settings, option_state) == 4);
static_assert(offsetof(relay_settings, policy) == 8 && offsetof(relay_settings, check) == 12);
static_assert(offsetof(relay_settings, hops) == 16 && offsetof(relay_settings, trust_all) == 20);
static_assert(offsetof(relay_settings, local_relay_enable) == 24);
static_assert(offsetof(relay_settings, local_relay_vlan) == 28 && offsetof(relay_settings, server_socket) == 8220);
static_assert(offsetof(relay_settings, raw_socket) == 8224 && offsetof(relay_settings, listen_socket) == 8228);
static_assert(offsetof(relay_settings, received) == 8232 && sizeof(relay_settings) == 8264);
static_assert(offsetof(relay_interface, name) == 0 && offsetof(relay_interface, ifindex) == 24);
static_assert(offsetof(relay_interface, address) == 28 && offsetof(relay_interface, mac) == 32);
static_assert(offsetof(relay_interface, mac_length) == 48 && offsetof(relay_interface, trusted) == 52);
static_assert(offsetof(relay_interface, local_relay) == 56 && offsetof(relay_interface, servers) == 60);
static_assert(offsetof(relay_interface, option60) == 76 && offsetof(relay_interface, option61) == 396);
static_assert(sizeof(relay_interface) == 972);
static_assert(offsetof(relay_transaction, xid) == 0 && offsetof(relay_transaction, module) == 4);
static_assert(offsetof(relay_transaction, port) == 8 && sizeof(relay_transaction) == 12);

// Hosts are copied as they are.
static_assert(offsetof(relay_option60_host, used) == offsetof(opt60_host, used));
static_assert(offsetof(relay_option60_host, match_rule) == offsetof(opt60_host, match_rule));
static_assert(offsetof(relay_option60_host, vendor) == offsetof(opt60_host, vendor));
static_assert(offsetof(relay_option60_host, server) == offsetof(opt60_host, server));
static_assert(sizeof(relay_option60_host) == sizeof(opt60_host));
static_assert(offsetof(relay_option61_host, used) == offsetof(opt61_host, used));
static_assert(offsetof(relay_option61_host, client_id) == offsetof(opt61_host, client_id));
static_assert(offsetof(relay_option61_host, client_id_length) == offsetof(opt61_host, client_id_len));
static_assert(offsetof(relay_option61_host, server) == offsetof(opt61_host, server));
static_assert(sizeof(relay_option61_host) == sizeof(opt61_host));

// ---- The functions of the table ----

void settings(relay_settings *out) {
    ravo_agent agent;
    ravo_db_agent_get(&agent);
    *out = {};
    out->relay_enable = agent.relay_enable;
    out->option_state = agent.option_state;
    out->policy = agent.policy;
    out->check = agent.check;
    out->hops = agent.hops;
    out->trust_all = trust_all;
    out->local_relay_enable = agent.local_relay_enable;
    std::memcpy(out->local_relay_vlan, agent.local_relay_vlan, sizeof out->local_relay_vlan);
    out->server_socket = ravo_server_sock_fd;
    out->raw_socket = ravo_raw_sock_fd;
    out->listen_socket = ravo_listen_sock_fd;
    const ravo_rx_counter_table &rx = ravo_rx_counters;
    const std::uint32_t received[] = {rx.discover, rx.offer, rx.request, rx.ack,
                                      rx.decline,  rx.nak,   rx.inform,  rx.release};
    std::copy(std::begin(received), std::end(received), out->received);
}

void copy_interface(const iface &record, relay_interface *out) {
    *out = {};
    std::memcpy(out->name, record.name, sizeof out->name);
    out->ifindex = record.ifindex;
    out->address = record.if_ip;
    std::memcpy(out->mac, record.if_mac, sizeof out->mac);
    out->mac_length = record.if_maclen;
    out->trusted = record.trusted;
    out->local_relay = record.local_relay_state;
    std::memcpy(out->servers, record.server_db, sizeof out->servers);
    std::memcpy(out->option60, record.opt60_hosts, sizeof out->option60);
    std::memcpy(out->option61, record.opt61_hosts, sizeof out->option61);
}

int interface_get(const char *name, relay_interface *out) {
    iface record = ravo_db_if_named(name);
    if (ravo_db_if_get(&record) == 0) return 0;
    copy_interface(record, out);
    return 1;
}

int interface_at(std::uint32_t address, relay_interface *out) {
    const iface *found = ravo_db_if_at(address);
    if (found == nullptr) return 0;
    copy_interface(*found, out);
    return 1;
}

int interface_first(relay_interface *out) {
    iface record;
    if (ravo_db_if_get_first(&record) == 0) return 0;
    copy_interface(record, out);
    return 1;
}

int interface_next(relay_interface *inout) {
    iface record = ravo_db_if_named(inout->name);
    if (ravo_db_if_go_on(&record) == 0) return 0;
    copy_interface(record, inout);
    return 1;
}

int transaction_first(relay_transaction *out) {
    xid_entry entry;
    if (ravo_db_xid_get_first(&entry) == 0) return 0;
    *out = {entry.xid, entry.module, entry.port};
    return 1;
}

int transaction_next(relay_transaction *inout) {
    xid_entry entry{};
    entry.xid = inout->xid;
    if (ravo_db_xid_go_on(&entry) == 0) return 0;
    *inout = {entry.xid, entry.module, entry.port};
    return 1;
}

int transaction_add(const relay_transaction *transaction) {
    xid_entry entry{};
    entry.xid = transaction->xid;
    entry.module = transaction->module;
    entry.port = transaction->port;
    return ravo_db_xid_update(&entry);
}

int local_relay_set(int on) {
    ravo_agent agent;
    ravo_db_agent_get(&agent);
    const std::uint32_t wanted = on != 0 ? 1 : 0;
    if (agent.local_relay_enable == wanted) return 0;
    agent.local_relay_enable = wanted;
    ravo_db_agent_set(&agent);
    return 1;
}

// The record of an interface: the stored one, or a new one that is not stored yet.
iface stored_or_new(const char *name) {
    iface record = ravo_db_if_named(name);
    if (ravo_db_if_get_or_new(&record) == 0) record.ifindex = if_utl_ifname_to_ifindex(name);
    return record;
}

int interface_make(const char *name) {
    const iface record = stored_or_new(name);
    return ravo_db_if_add(&record);
}

int interface_local_relay_set(const char *name, int on) {
    iface record = ravo_db_if_named(name);
    if (on == 0 && ravo_db_if_get(&record) == 0) return 1;  // off already: no reason to make a record
    record = stored_or_new(name);
    if (on != 0)
        RAVO_Enable_Dhcp_LocalRelay(&record);
    else
        record.local_relay_state = 0;
    return ravo_db_if_add(&record);
}

}  // namespace

const relay_access ravo_access = {
    .settings = settings,
    .interface_get = interface_get,
    .interface_first = interface_first,
    .interface_next = interface_next,
    .interface_make = interface_make,
    .transaction_first = transaction_first,
    .transaction_next = transaction_next,
    .local_relay_set = local_relay_set,
    .local_relay_vlans = RAVO_Set_VLANID_Req,
    .interface_local_relay_set = interface_local_relay_set,
    .transaction_add = transaction_add,
    .interface_at = interface_at,
};
