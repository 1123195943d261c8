// SPDX-License-Identifier: Apache-2.0
// Each builder reads the relay's records through its access table, so that a document can neither lag behind the text
// output's format nor depend on it.
#include "commands/relay_json.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <type_traits>

#include "base/text.h"
#include "process/relay_data.h"

namespace ravo::cli {

namespace {

std::string hex_text(const std::uint8_t *bytes, std::size_t count, const char *separator, const char *format) {
    std::string out;
    for (std::size_t i = 0; i < count; ++i) {
        char pair[4];
        std::snprintf(pair, sizeof pair, format, static_cast<unsigned>(bytes[i]));
        out += (i == 0 ? "" : separator) + std::string(pair);
    }
    return out;
}

// Calls a function with each interface record, in the relay's order.
template <typename function>
void for_each_interface(const relay_access &relay, function use) {
    relay_interface iface{};
    for (int found = relay.interface_first(&iface); found == 1; found = relay.interface_next(&iface)) use(iface);
}

// ---- Parts that several documents have ----

void add_settings(json_writer &out, const relay_settings &settings) {
    constexpr const char *policies[] = {"", "replace", "drop", "keep"};
    json_bool(out, "relay", settings.relay_enable == 1);
    json_number(out, "hops", settings.hops);
    json_bool(out, "information_option", settings.option_state == 1);
    json_string(out, "policy", settings.policy < std::size(policies) ? policies[settings.policy] : "");
    json_bool(out, "check", settings.check == 1);
    json_bool(out, "trust_all", settings.trust_all == 1);
    json_bool(out, "local_relay", settings.local_relay_enable == 1);
    json_open(out, "local_relay_vlans", '[');
    for (const std::uint16_t vlan : settings.local_relay_vlan)
        if (vlan != 0) json_number(out, "", vlan);
    json_close(out, ']');
}

void add_identity(json_writer &out, const relay_interface &iface) {
    json_string(out, "name", iface.name);
    json_number(out, "ifindex", iface.ifindex);
}

void add_servers(json_writer &out, const relay_interface &iface) {
    json_open(out, "servers", '[');
    for (const std::uint32_t server : iface.servers)
        if (server != 0) json_string(out, "", platform::ipv4_text(server));
    json_close(out, ']');
}

std::int64_t add_trusted(json_writer &out, const relay_access &relay) {
    std::int64_t total = 0;
    json_open(out, "trusted_sources", '[');
    for_each_interface(relay, [&](const relay_interface &iface) {
        if (iface.trusted != 1) return;
        json_string(out, "", iface.name);
        ++total;
    });
    json_close(out, ']');
    return total;
}

// xid: in network byte order, as in the message. The first member is this number as the relay prints it.
void add_xid(json_writer &out, std::uint32_t xid) {
    char text[9];
    std::snprintf(text, sizeof text, "%X", static_cast<unsigned>(xid));
    json_string(out, "xid", text);
    std::uint8_t bytes[sizeof xid];
    std::memcpy(bytes, &xid, sizeof bytes);
    json_string(out, "xid_bytes", hex_text(bytes, sizeof bytes, "", "%02x"));
}

// Prints a line when no relay is registered.
const relay_access *relay_or_refuse(struct cli *cli) {
    const relay_access *relay = platform::relay_data();
    if (relay == nullptr) cli->print(cli->print_handle, "%% Not available: no relay runs here\n");
    return relay;
}

std::unique_ptr<relay_settings> read_settings(const relay_access &relay) {
    auto out = std::make_unique<relay_settings>();
    relay.settings(out.get());
    return out;
}

void add_sockets_and_counters(json_writer &out, const relay_settings &settings) {
    constexpr const char *types[] = {"discover", "offer", "request", "ack", "decline", "nak", "inform", "release"};
    static_assert(std::size(types) == std::extent_v<decltype(settings.received)>);
    json_open(out, "sockets", '{');
    json_number(out, "server", settings.server_socket);
    json_number(out, "raw", settings.raw_socket);
    json_number(out, "listen", settings.listen_socket);
    json_close(out, '}');
    json_open(out, "received", '{');
    for (std::size_t i = 0; i < std::size(types); ++i) json_number(out, types[i], settings.received[i]);
    json_close(out, '}');
}

void add_option60(json_writer &out, const relay_interface &iface) {
    json_open(out, "option60", '[');
    for (const relay_option60_host &host : iface.option60) {
        if (host.used != 1) continue;
        json_open(out, "", '{');
        json_string(out, "vendor", std::string_view(host.vendor, strnlen(host.vendor, sizeof host.vendor)));
        json_string(out, "match", host.match_rule == 0 ? "exact-match" : "partial-match");
        json_string(out, "server", platform::ipv4_text(host.server));
        json_close(out, '}');
    }
    json_close(out, ']');
}

void add_option61(json_writer &out, const relay_interface &iface) {
    json_open(out, "option61", '[');
    for (const relay_option61_host &host : iface.option61) {
        if (host.used != 1) continue;
        const std::size_t length = std::min<std::size_t>(host.client_id_length, sizeof host.client_id);
        json_open(out, "", '{');
        json_string(out, "client_id", hex_text(host.client_id, length, "", "%02X"));
        json_string(out, "server", platform::ipv4_text(host.server));
        json_close(out, '}');
    }
    json_close(out, ']');
}

}  // namespace

// ---- The documents ----

int relay_json(struct cli *cli, int /*argc*/, char ** /*argv*/, json_writer &out) {
    const relay_access *relay = relay_or_refuse(cli);
    if (relay == nullptr) return 1;
    json_open(out, "", '{');
    add_settings(out, *read_settings(*relay));
    json_open(out, "interfaces", '[');
    for_each_interface(*relay, [&](const relay_interface &iface) {
        if (std::count(std::begin(iface.servers), std::end(iface.servers), 0u) == RELAY_ACCESS_SERVERS) return;
        json_open(out, "", '{');
        add_identity(out, iface);
        add_servers(out, iface);
        json_close(out, '}');
    });
    json_close(out, ']');
    (void)add_trusted(out, *relay);  // the summary has no total
    json_close(out, '}');
    return 0;
}

int relay_detail_json(struct cli *cli, int /*argc*/, char ** /*argv*/, json_writer &out) {
    const relay_access *relay = relay_or_refuse(cli);
    if (relay == nullptr) return 1;
    const std::unique_ptr<relay_settings> settings = read_settings(*relay);
    json_open(out, "", '{');
    add_settings(out, *settings);
    add_sockets_and_counters(out, *settings);
    json_open(out, "interfaces", '[');
    for_each_interface(*relay, [&](const relay_interface &iface) {
        json_open(out, "", '{');
        add_identity(out, iface);
        const std::size_t mac_length = std::min<std::size_t>(iface.mac_length, sizeof iface.mac);
        if (iface.address != 0) json_string(out, "address", platform::ipv4_text(iface.address));
        if (mac_length != 0) json_string(out, "mac", hex_text(iface.mac, mac_length, ":", "%02x"));
        json_bool(out, "trusted", iface.trusted == 1);
        json_bool(out, "local_relay", iface.local_relay == 1);
        add_servers(out, iface);
        json_close(out, '}');
    });
    json_close(out, ']');
    json_close(out, '}');
    return 0;
}

int relay_trusted_json(struct cli *cli, int /*argc*/, char ** /*argv*/, json_writer &out) {
    const relay_access *relay = relay_or_refuse(cli);
    if (relay == nullptr) return 1;
    json_open(out, "", '{');
    const std::int64_t total = add_trusted(out, *relay);
    json_number(out, "total", total);
    json_close(out, '}');
    return 0;
}

int relay_options_json(struct cli *cli, int argc, char **argv, json_writer &out) {
    const relay_access *relay = relay_or_refuse(cli);
    if (relay == nullptr) return 1;
    const bool with60 = argc == 0 || std::string_view(argv[0]) == "60";
    const bool with61 = argc == 0 || std::string_view(argv[0]) == "61";
    const auto is_used = [](const auto &host) { return host.used == 1; };
    json_open(out, "", '{');
    json_open(out, "interfaces", '[');
    for_each_interface(*relay, [&](const relay_interface &iface) {
        const bool any60 = with60 && std::any_of(std::begin(iface.option60), std::end(iface.option60), is_used);
        const bool any61 = with61 && std::any_of(std::begin(iface.option61), std::end(iface.option61), is_used);
        if (!any60 && !any61) return;
        json_open(out, "", '{');
        json_string(out, "name", iface.name);
        if (with60) add_option60(out, iface);
        if (with61) add_option61(out, iface);
        json_close(out, '}');
    });
    json_close(out, ']');
    json_close(out, '}');
    return 0;
}

int relay_transactions_json(struct cli *cli, int /*argc*/, char ** /*argv*/, json_writer &out) {
    const relay_access *relay = relay_or_refuse(cli);
    if (relay == nullptr) return 1;
    std::int64_t total = 0;
    json_open(out, "", '{');
    json_open(out, "transactions", '[');
    relay_transaction entry{};
    for (int found = relay->transaction_first(&entry); found == 1; found = relay->transaction_next(&entry)) {
        json_open(out, "", '{');
        add_xid(out, entry.xid);
        json_number(out, "module", entry.module);
        json_number(out, "port", entry.port);
        json_close(out, '}');
        ++total;
    }
    json_close(out, ']');
    json_number(out, "total", total);
    json_close(out, '}');
    return 0;
}

}  // namespace ravo::cli
