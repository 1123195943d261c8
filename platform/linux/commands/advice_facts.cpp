// SPDX-License-Identifier: Apache-2.0
// Where the facts come from: the relay's data, the books, the inventory, and the host.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <utility>

#include "base/clock.h"
#include "base/files.h"
#include "base/owners.h"
#include "base/text.h"
#include "books/books.h"
#include "channel/channel.h"
#include "cli/command_line.h"
#include "cli/session.h"
#include "commands/advice.h"
#include "configuration/configuration.h"
#include "inventory/inventory.h"
#include "inventory/inventory_names.h"
#include "inventory/switch_description.h"
#include "process/frame.h"
#include "process/relay_data.h"
#include "process/state_folder.h"
#include "settings/kept_settings.h"

namespace ravo::cli {

namespace {

void take_relay(advice_facts &facts) {
    const relay_access *relay = platform::relay_data();
    if (relay == nullptr) return;
    const auto settings = std::make_unique<relay_settings>();
    relay->settings(settings.get());
    facts.settings = *settings;
    relay_interface iface{};
    for (int found = relay->interface_first(&iface); found == 1; found = relay->interface_next(&iface)) {
        facts.interfaces.push_back(iface);
        turns_pause_if_due();
    }
}

void take_books(advice_facts &facts) {
    facts.servers = platform::servers_all();
    facts.unknown_tags = platform::books_total().by_outcome[OUTCOME_UNKNOWN_VLAN];
    facts.lost = platform::channel_lost();
    for (std::uint16_t vlan = 1; vlan <= platform::last_vlan; ++vlan)
        if (platform::books_of_vlan(vlan).by_outcome[OUTCOME_NO_SERVER] != 0) facts.serverless.push_back(vlan);
}

void take_inventory(advice_facts &facts) {
    for (const platform::inventory_row &row : platform::inventory_rows(turns_pause_if_due)) {
        const std::uint32_t address = inet_addr(row.address.substr(0, row.address.find('/')).c_str());
        if (!row.address.empty() && address != INADDR_NONE) facts.own_addresses.insert(address);
        if (row.kind == platform::inventory_row::what::port && row.why == "next free")
            facts.guessed_ports.push_back(row.device);
    }
    for (const waiting_interface &each : kept_waiting()) facts.waiting.push_back("vlan" + std::to_string(each.vlan));
}

// Whether the kernel has a route to a server; nothing is sent.
bool is_reachable(const platform::descriptor &probe, std::uint32_t server) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(67);
    to.sin_addr.s_addr = server;
    if (connect(probe.get(), reinterpret_cast<const sockaddr *>(&to), sizeof to) == 0) return true;
    return errno != ENETUNREACH && errno != EHOSTUNREACH;
}

void take_routes(advice_facts &facts) {
    const platform::descriptor probe(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!probe) return;
    std::set<std::uint32_t> seen;  // many interfaces have the same
    const auto look = [&](std::uint32_t server) {
        if (server != 0 && seen.insert(server).second && !is_reachable(probe, server)) facts.unreachable.insert(server);
    };
    for (const relay_interface &iface : facts.interfaces) {
        turns_pause_if_due();
        for (const std::uint32_t server : iface.servers) look(server);
        for (const relay_option60_host &host : iface.option60)
            if (host.used == 1) look(host.server);
        for (const relay_option61_host &host : iface.option61)
            if (host.used == 1) look(host.server);
    }
}

// Nothing where they cannot all be listed.
std::optional<std::set<std::string>> own_sockets() {
    std::set<std::string> out;
    std::error_code fault, gone;
    for (std::filesystem::directory_iterator entry("/proc/self/fd", fault), end; !fault && entry != end;
         entry.increment(fault)) {
        const std::string to = std::filesystem::read_symlink(entry->path(), gone).string();
        if (to.starts_with("socket:[")) out.insert(to.substr(8, to.size() - 9));
    }
    if (fault) return std::nullopt;
    return out;
}

// Looks through the kernel's table of UDP sockets for one of others at the port of DHCP servers.
bool is_port_taken() {
    std::ifstream table("/proc/net/udp");
    const std::optional<std::set<std::string>> own = own_sockets();
    if (!own) return false;  // nobody knows whose the sockets are
    for (std::string line; std::getline(table, line);) {
        std::istringstream words(line);
        std::string number, local, remote, state, queues, timer, retransmits, user, timeout, inode;
        words >> number >> local >> remote >> state >> queues >> timer >> retransmits >> user >> timeout >> inode;
        if (local.ends_with(":0043") && !own->contains(inode)) return true;
    }
    return false;
}

bool has_trap() {
    platform::switch_description description;
    if (platform::switch_description_read(platform::frame_get_options().switch_file, /*optional=*/true, &description))
        return true;  // nobody knows; the log says what is wrong with it
    if (description.channel.trap) return true;
    for (const platform::described_port &port : description.ports)
        if (port.trap.value_or(false)) return true;
    return false;
}

// Compared anew only when a setting was made or the file changed: with thousands of interfaces it takes its time.
bool is_saved() {
    static std::uint64_t settings_then = UINT64_MAX;
    static std::string waiting_then;
    static std::pair<std::int64_t, std::int64_t> file_then{-1, -1};
    static bool saved = true;
    const std::string &path = platform::frame_get_options().startup_config;
    struct stat status {};
    std::pair<std::int64_t, std::int64_t> file{-1, -1};
    if (stat(path.c_str(), &status) == 0)
        file = {status.st_mtim.tv_sec * 1000000000 + status.st_mtim.tv_nsec, status.st_size};
    const std::uint64_t settings = count_settings_made();
    std::string waiting;
    for (const waiting_interface &each : kept_waiting()) waiting += " " + std::to_string(each.vlan);
    if (settings == settings_then && file == file_then && waiting == waiting_then) return saved;
    const bool found = configuration_is_saved();  // others may have their turns meanwhile
    settings_then = settings;
    file_then = file;
    waiting_then = waiting;
    saved = found;
    return found;
}

}  // namespace

advice_facts advice_gather() {
    advice_facts facts;
    facts.now_us = platform::wall_clock_us();
    take_relay(facts);
    take_books(facts);
    take_inventory(facts);
    take_routes(facts);
    facts.trap = has_trap();
    facts.other_server = is_port_taken();
    facts.saved = is_saved();
    facts.remembers = !platform::state_folder().empty();
    return facts;
}

}  // namespace ravo::cli
