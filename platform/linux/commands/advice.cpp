// SPDX-License-Identifier: Apache-2.0
// The rules: each looks at the facts for one kind of trouble.
#include "commands/advice.h"

#include <arpa/inet.h>

#include <algorithm>
#include <iterator>

#include "base/text.h"

namespace ravo::cli {

namespace {

using list = std::vector<advice>;
using platform::ipv4_text;

constexpr std::uint64_t asked_in_vain = 20;

std::vector<std::uint32_t> plain_servers(const relay_interface &iface) {
    std::vector<std::uint32_t> out;
    std::copy_if(std::begin(iface.servers), std::end(iface.servers), std::back_inserter(out),
                 [](std::uint32_t server) { return server != 0; });
    return out;
}

std::vector<std::uint32_t> all_servers(const relay_interface &iface) {
    std::vector<std::uint32_t> out = plain_servers(iface);
    for (const relay_option60_host &host : iface.option60)
        if (host.used == 1) out.push_back(host.server);
    for (const relay_option61_host &host : iface.option61)
        if (host.used == 1) out.push_back(host.server);
    return out;
}

bool has_local_relay(const advice_facts &facts) {
    return facts.settings.local_relay_enable == 1 ||
           std::any_of(facts.interfaces.begin(), facts.interfaces.end(),
                       [](const relay_interface &iface) { return iface.local_relay == 1; });
}

std::string names_text(const std::vector<std::string> &names) {
    constexpr std::size_t most = 5;
    std::string out;
    for (std::size_t i = 0; i < names.size() && i < most; ++i) out += (i == 0 ? "" : ", ") + names[i];
    return names.size() > most ? out + " and " + std::to_string(names.size() - most) + " more" : out;
}

// ---- The rules ----

void on_addresses(const advice_facts &facts, list &out) {
    for (const relay_interface &iface : facts.interfaces)
        if (iface.address == 0 && !all_servers(iface).empty())
            out.push_back({"no-address",
                           "interface " + std::string(iface.name) +
                               " has servers and no address: its requests leave with giaddr 0.0.0.0, and no answer "
                               "finds back",
                           "give the device an IPv4 address"});
}

// What a server's address is that it should not be; empty when it is good.
std::string fault_of_server(const advice_facts &facts, std::uint32_t server) {
    const std::uint32_t address = ntohl(server);
    if (address >> 24 == 127) return "a loopback address";
    if (address >> 28 == 14) return "a multicast address";
    if (address == 0xFFFFFFFF) return "the broadcast address";
    if (facts.own_addresses.contains(server)) return "an address of this host";
    return facts.unreachable.contains(server) ? "an address to which no route leads" : "";
}

void on_server_addresses(const advice_facts &facts, list &out) {
    for (const relay_interface &iface : facts.interfaces) {
        for (const std::uint32_t server : all_servers(iface)) {
            const std::string fault = fault_of_server(facts, server);
            if (fault.empty()) continue;
            const bool no_route = facts.unreachable.contains(server) && fault.ends_with("leads");
            out.push_back({no_route ? "no-route" : "bad-server",
                           "server " + ipv4_text(server) + " of interface " + iface.name + " is " + fault,
                           no_route ? "add a route to it" : "configure the address of a DHCP server"});
        }
    }
}

void on_silent_servers(const advice_facts &facts, list &out) {
    for (const platform::server_figures &each : facts.servers) {
        if (each.unanswered < asked_in_vain || !platform::silent_seconds(each, facts.now_us)) continue;
        out.push_back(
            {"silent-server",
             "server " + ipv4_text(each.server) + " does not answer requests of vlan" + std::to_string(each.vlan),
             "see whether it runs, has a range for that network, and reaches the address of the interface"});
    }
}

void on_relay_off(const advice_facts &facts, list &out) {
    const bool has_servers = std::any_of(facts.interfaces.begin(), facts.interfaces.end(),
                                         [](const relay_interface &iface) { return !all_servers(iface).empty(); });
    if (facts.settings.relay_enable != 1 && has_servers)
        out.push_back({"relay-off", "servers are configured and relaying is off", "\"ip dhcp relay\" turns it on"});
}

void on_serverless(const advice_facts &facts, list &out) {
    for (const std::uint16_t vlan : facts.serverless)
        out.push_back({"no-server", "clients of vlan" + std::to_string(vlan) + " ask, and it has no server for them",
                       "\"interface vlan" + std::to_string(vlan) + "\", then \"ip dhcp relay address A.B.C.D\""});
}

void on_guessed_ports(const advice_facts &facts, list &out) {
    if (facts.settings.option_state != 1 || facts.guessed_ports.empty()) return;
    out.push_back({"guessed-ports",
                   "option 82 names ports whose numbers are guessed: " + names_text(facts.guessed_ports),
                   "\"copy ports switch-description\" writes them down; put them right there"});
}

void on_check(const advice_facts &facts, list &out) {
    for (const relay_interface &iface : facts.interfaces)
        if (facts.settings.check == 1 && facts.settings.option_state == 1 && plain_servers(iface).size() > 1)
            out.push_back(
                {"several-servers",
                 "interface " + std::string(iface.name) +
                     " asks several servers with the reply check on: the first answer ends a transaction, the "
                     "others are dropped as already-answered",
                 "this is normal; \"no ip dhcp relay information check\" delivers all answers"});
}

void on_local_relay(const advice_facts &facts, list &out) {
    if (!has_local_relay(facts)) return;
    if (facts.settings.check != 1)
        out.push_back(
            {"local-relay-unchecked",
             "local relay is on and the reply check is off: a broadcast reply without option 82 ends the daemon",
             "\"ip dhcp relay information check\" turns it on"});
    if (!facts.trap)
        out.push_back({"no-trap", "local relay is on without a trap: servers of the VLAN hear each broadcast twice",
                       "\"[channel] trap = true\" in the switch description"});
}

void on_host(const advice_facts &facts, list &out) {
    if (facts.other_server)
        out.push_back({"port-67-taken", "another program has UDP port 67: it may answer or take the relay's messages",
                       "\"ss -ulpn sport = 67\" names it; end it"});
    if (facts.unknown_tags != 0)
        out.push_back({"unknown-vlan",
                       std::to_string(facts.unknown_tags) + " messages came for VLANs that have no interface",
                       "make VLAN interfaces for them, or take the VLANs off the ports"});
    if (facts.lost != 0)
        out.push_back({"messages-lost", std::to_string(facts.lost) + " messages came faster than they could be read",
                       "limit what ports may send (switch.toml)"});
}

void on_configuration(const advice_facts &facts, list &out) {
    if (!facts.waiting.empty())
        out.push_back({"settings-wait", "settings wait for interfaces: " + names_text(facts.waiting),
                       "make the interfaces and give them addresses, or \"no interface NAME\" forgets the settings"});
    if (!facts.saved)
        out.push_back({"not-saved", "the running configuration is not what is saved", "\"write memory\" saves it"});
    if (!facts.remembers)
        out.push_back({"not-remembered", "numbers of ports are not remembered over a restart: there is no state folder",
                       "ravod --state DIR"});
}

}  // namespace

std::vector<advice> advice_on(const advice_facts &facts) {
    list out;
    for (const auto rule : {on_addresses, on_server_addresses, on_silent_servers, on_relay_off, on_serverless,
                            on_guessed_ports, on_check, on_local_relay, on_host, on_configuration})
        rule(facts, out);
    return out;
}

}  // namespace ravo::cli
