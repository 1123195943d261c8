// SPDX-License-Identifier: Apache-2.0
// Who may send what, by what is behind the port: replies come from where servers are, requests from where
// clients are. What is wrong with a message as such (lengths, flags, options) is left to the relay, which has outcomes
// for it; a guard that cannot read what it judges by lets the message pass.

#include "channel/guard.h"

#include <netinet/in.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iterator>

namespace ravo::platform {
namespace {

constexpr std::int64_t second_ns = 1'000'000'000;
constexpr std::int64_t window_s = 60;                     // in which client addresses are counted
constexpr std::int64_t servers_stay_ns = second_ns;       // configured servers are read again after that
constexpr std::int64_t servers_rest_ns = second_ns / 10;  // and not sooner, however many strangers ask
constexpr std::size_t in_ip_part_source = 8;
constexpr std::size_t in_ip_part_destination = 12;
constexpr std::size_t frame_source = 6;
constexpr std::size_t mac_size = 6;
constexpr std::uint8_t htype_ethernet = 1;

std::uint32_t address_in(std::span<const std::uint8_t> ip_part, std::size_t at) {
    std::uint32_t address;
    std::memcpy(&address, ip_part.data() + at, sizeof address);
    return address;
}

std::uint64_t client_of(const dhcp_view &dhcp) {
    std::uint64_t client = 0;
    std::memcpy(&client, dhcp.chaddr().data(), mac_size);
    return client;
}

// A circuit id that is shorter or longer than the relay's may pass for it where only the bytes of one are compared.
bool has_odd_circuit_id(const dhcp_view &dhcp) {
    constexpr std::uint8_t circuit_id = 1, circuit_id_size = 6;
    const std::size_t at = dhcp.find_option(dhcp_option_agent);
    if (at == 0) return false;
    const std::size_t size = dhcp.byte(at + 1);
    if (dhcp.byte(at + 2) != circuit_id) return false;
    return size < circuit_id_size + 2U || dhcp.byte(at + 3) != circuit_id_size;
}

bool has_other_source(const guarded_message &m, const dhcp_view &dhcp) {
    if (dhcp.htype() != htype_ethernet || dhcp.hlen() != mac_size) return true;
    return std::memcmp(m.frame.data() + frame_source, dhcp.chaddr().data(), mac_size) != 0;
}

bool has_local_relay(const relay_interface &iface) {
    return iface.local_relay == 1 &&
           std::all_of(std::begin(iface.servers), std::end(iface.servers), [](std::uint32_t s) { return s == 0; });
}

std::string interface_of(const guarded_message &m) {
    return "vlan" + std::to_string(m.in.vlan);
}

}  // namespace

void guards::describe(const switch_description &description) {
    on_ = description.guard;
    rules_.clear();
    for (const described_port &port : description.ports) {
        const bool of_clients = !port.servers && !port.trusted;
        rules_[port.device] = {port.servers, port.trusted, port.clients.value_or(of_clients ? on_.clients : 0)};
    }
    transactions_.use(on_.transactions);
    described_guard off;
    off.core_assertions = on_.core_assertions;
    any_ =
        on_ != off || std::any_of(rules_.begin(), rules_.end(), [](const auto &of) { return of.second.clients != 0; });
}

guards::port_rule guards::rule_of(const guarded_message &m) const {
    const auto described = rules_.find(m.device);
    if (described != rules_.end()) return described->second;
    return {.servers = m.uplink, .trusted = false, .clients = m.uplink ? 0 : on_.clients};
}

relay_outcome guards::judge(const guarded_message &m) {
    const dhcp_view dhcp(m.message);
    if (!dhcp.has_header()) return OUTCOME_NONE;
    relay_outcome outcome = OUTCOME_NONE;
    if (any_ && dhcp.op() == dhcp_bootrequest) outcome = judge_request(m, rule_of(m));
    if (any_ && dhcp.op() == dhcp_bootreply) outcome = judge_reply(m, rule_of(m));
    if (outcome == OUTCOME_NONE && !on_.core_assertions && dhcp.op() == dhcp_bootreply && ends_relay(m))
        return OUTCOME_CORE_ASSERTION;
    return outcome;
}

void guards::delivered(std::span<const std::uint8_t> message) {
    const dhcp_view dhcp(message);
    if (on_.transactions && dhcp.has_header() && dhcp.op() == dhcp_bootreply) transactions_.close(dhcp.xid());
}

void guards::goes_on(std::uint32_t xid, std::uint32_t port, std::int64_t seconds) {
    if (on_.transactions) transactions_.take_over(xid, port, seconds, clock_() / second_ns);
}

// ---- Replies ----

relay_outcome guards::judge_reply(const guarded_message &m, const port_rule &rule) {
    if (on_.server_ports && !rule.servers && !m.uplink) return OUTCOME_GUARD_SERVER_PORT;
    if (on_.servers && !is_server(address_in(m.ip_part, in_ip_part_source))) return OUTCOME_GUARD_SERVER;
    if (on_.circuit_id && has_odd_circuit_id(dhcp_view(m.message))) return OUTCOME_GUARD_CIRCUIT_ID;
    return OUTCOME_NONE;
}

void guards::read_servers() {
    servers_.clear();
    relay_interface iface{};
    for (int found = relay_->interface_first(&iface); found == 1; found = relay_->interface_next(&iface)) {
        for (const std::uint32_t server : iface.servers)
            if (server != 0) servers_.insert(server);
        for (const relay_option60_host &host : iface.option60)
            if (host.used != 0) servers_.insert(host.server);
        for (const relay_option61_host &host : iface.option61)
            if (host.used != 0) servers_.insert(host.server);
    }
}

bool guards::is_server(std::uint32_t address) {
    if (relay_ == nullptr) return true;
    const std::int64_t now_ns = clock_();
    const std::int64_t age = now_ns - servers_read_ns_;
    if (age > servers_stay_ns || (age > servers_rest_ns && !servers_.contains(address))) {
        read_servers();
        servers_read_ns_ = now_ns;
    }
    return servers_.contains(address);
}

// ---- Requests ----

relay_outcome guards::judge_request(const guarded_message &m, const port_rule &rule) {
    const dhcp_view dhcp(m.message);
    const bool relayed = dhcp.giaddr() != 0;
    const bool of_clients = !rule.servers && !rule.trusted;
    if (on_.relay_fields && of_clients && (relayed || dhcp.find_option(dhcp_option_agent) != 0))
        return OUTCOME_GUARD_RELAY_FIELDS;
    if (on_.source_mac && !relayed && has_other_source(m, dhcp)) return OUTCOME_GUARD_SOURCE_MAC;
    if (on_.destination && of_clients && is_of_other_vlan(m)) return OUTCOME_GUARD_DESTINATION;
    if (rule.clients != 0 && !relayed && is_one_client_too_many(m, rule.clients)) return OUTCOME_GUARD_CLIENTS;
    if (!on_.transactions || relayed) return OUTCOME_NONE;
    transaction_owner owner{.port = m.in.port_ifindex};
    std::copy_n(dhcp.chaddr().begin(), owner.client.size(), owner.client.begin());
    return transactions_.open(dhcp.xid(), owner, clock_() / second_ns) ? OUTCOME_NONE : OUTCOME_GUARD_TRANSACTION;
}

// What is for nobody's interface is the relay's to refuse: clients renew with servers through the box. 0.0.0.0 finds
// an interface that has no address.
bool guards::is_of_other_vlan(const guarded_message &m) const {
    const std::uint32_t destination = address_in(m.ip_part, in_ip_part_destination);
    if (relay_ == nullptr || destination == INADDR_BROADCAST) return false;
    relay_interface own{};
    const bool is_ours = destination == INADDR_ANY ? relay_->interface_at(destination, &own) == 1
                                                   : inventory_vlan_of_address(destination) != 0;
    return is_ours && (relay_->interface_get(interface_of(m).c_str(), &own) != 1 || own.address != destination);
}

// Clients that were there within the window stay; others wait for the next one.
bool guards::is_one_client_too_many(const guarded_message &m, std::uint32_t most) {
    port_clients &seen = clients_[m.in.port_ifindex];
    const std::int64_t now_s = clock_() / second_ns;
    if (now_s - seen.window_s >= window_s) {
        seen.addresses.clear();
        seen.window_s = now_s;
    }
    const std::uint64_t client = client_of(dhcp_view(m.message));
    if (seen.addresses.contains(client)) return false;
    if (seen.addresses.size() >= most) return true;
    seen.addresses.insert(client);
    return false;
}

// ---- What the relay can answer only by ending ----

// Local relay with the check off: the relay takes a reply for a request there, and asserts that it is one. The checks
// are those that the relay makes before that, in its order, so that what it would drop anyway is left for it to drop.
bool guards::ends_relay(const guarded_message &m) const {
    const dhcp_view dhcp(m.message);
    if (relay_ == nullptr || dhcp.giaddr() != 0 || !dhcp.is_plain_chain()) return false;
    constexpr std::uint8_t first_type = 1, last_type = 8;
    const std::uint8_t type = dhcp.message_type();
    if (type < first_type || type > last_type || dhcp.find_option(dhcp_option_agent) != 0) return false;
    if (dhcp.flags() != 0 && dhcp.flags() != dhcp_flag_broadcast) return false;
    relay_settings settings;
    relay_->settings(&settings);
    if (settings.relay_enable == 0 || settings.check == 1 || dhcp.hops() > std::min(settings.hops, dhcp_hops_ceiling))
        return false;
    return local_relay_takes(m);
}

bool guards::local_relay_takes(const guarded_message &m) const {
    const std::uint32_t destination = address_in(m.ip_part, in_ip_part_destination);
    relay_interface iface{};
    const int found = destination != INADDR_BROADCAST ? relay_->interface_at(destination, &iface)
                      : m.in.vlan != 0                ? relay_->interface_get(interface_of(m).c_str(), &iface)
                                                      : 0;
    return found == 1 && has_local_relay(iface);
}

}  // namespace ravo::platform
