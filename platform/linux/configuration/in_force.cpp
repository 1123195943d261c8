// A row for each command of the relay that refuses to make a setting twice, with the question whether the relay's data
// holds exactly what it asks for. What the refusal says is no proof: the relay takes client identifiers that differ
// behind their fourth byte for the same, and an address of 0.0.0.0 for one that is there.
#include "configuration/in_force.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <span>

#include "commands/books_text.h"
#include "process/relay_data.h"

namespace ravo::cli {

namespace {

using words = std::vector<std::string>;

// ---- Global settings ----

std::uint32_t policy_number(std::string_view name) {
    return name == "replace" ? 1 : name == "drop" ? 2 : name == "keep" ? 3 : 0;
}

struct global_row {
    std::string_view command;
    bool (*holds)(const relay_settings &, const words &);
};

constexpr global_row global_rows[] = {
    {"ip dhcp relay information option",
     [](const relay_settings &now, const words &) { return now.option_state == 1; }},
    {"no ip dhcp relay information option",
     [](const relay_settings &now, const words &) { return now.option_state == 0; }},
    {"ip dhcp relay information check", [](const relay_settings &now, const words &) { return now.check == 1; }},
    {"no ip dhcp relay information check", [](const relay_settings &now, const words &) { return now.check == 0; }},
    {"ip dhcp relay information policy {keep|drop|replace}",
     [](const relay_settings &now, const words &asked) {
         return asked.size() == 1 && now.policy == policy_number(asked[0]);
     }},
    {"ip dhcp relay hops <1-16>",
     [](const relay_settings &now, const words &asked) {
         return asked.size() == 1 && now.hops == std::strtoul(asked[0].c_str(), nullptr, 10);
     }},
};

// ---- Servers of an interface ----

// Reads an address, in network byte order; 0, which no server has, for a text that is none.
std::uint32_t read_address(const std::string &text) {
    in_addr out{};
    return inet_pton(AF_INET, text.c_str(), &out) == 1 ? out.s_addr : 0;
}

bool has_server(const relay_interface &iface, const words &asked) {
    const std::uint32_t server = asked.size() == 1 ? read_address(asked[0]) : 0;
    return server != 0 && std::count(std::begin(iface.servers), std::end(iface.servers), server) != 0;
}

bool has_option60_host(const relay_interface &iface, const words &asked) {
    if (asked.size() != 3) return false;
    const std::uint32_t rule = asked[1] == "exact-match" ? 0 : 1;
    const std::uint32_t server = read_address(asked[2]);
    return std::any_of(std::begin(iface.option60), std::end(iface.option60), [&](const relay_option60_host &host) {
        return host.used == 1 && host.match_rule == rule && host.server == server &&
               asked[0] == std::string_view(host.vendor, strnlen(host.vendor, sizeof host.vendor));
    });
}

std::string identifier_text(const relay_option61_host &host) {
    return hex_text(
        std::span(host.client_id).first(std::min<std::size_t>(host.client_id_length, sizeof host.client_id)));
}

bool has_option61_host(const relay_interface &iface, const words &asked) {
    if (asked.size() != 2 || !asked[0].starts_with("0x")) return false;
    std::string digits = asked[0].substr(2);
    if (digits.size() % 2 != 0) digits.insert(0, "0");
    for (char &digit : digits) digit = static_cast<char>(std::tolower(static_cast<unsigned char>(digit)));
    const std::uint32_t server = read_address(asked[1]);
    return std::any_of(std::begin(iface.option61), std::end(iface.option61), [&](const relay_option61_host &host) {
        return host.used == 1 && host.server == server && identifier_text(host) == digits;
    });
}

struct interface_row {
    std::string_view command;
    bool (*holds)(const relay_interface &, const words &);
};

constexpr interface_row interface_rows[] = {
    {"ip dhcp relay address A.B.C.D", has_server},
    {"ip dhcp relay option60 string WORD {exact-match|partial-match} address A.B.C.D", has_option60_host},
    {"ip dhcp relay option61 hex WORD address A.B.C.D", has_option61_host},
};

template <typename rows>
auto find_row(const rows &all, std::string_view command) {
    return std::find_if(std::begin(all), std::end(all), [&](const auto &row) { return row.command == command; });
}

}  // namespace

bool in_force(std::string_view command, const std::vector<std::string> &arguments, const char *interface) {
    const relay_access *relay = platform::relay_data();
    if (relay == nullptr) return false;
    const auto *const global = find_row(global_rows, command);
    if (global != std::end(global_rows)) {
        const auto settings = std::make_unique<relay_settings>();
        relay->settings(settings.get());
        return global->holds(*settings, arguments);
    }
    const auto *const row = find_row(interface_rows, command);
    if (row == std::end(interface_rows) || interface == nullptr) return false;
    relay_interface iface{};
    return relay->interface_get(interface, &iface) == 1 && row->holds(iface, arguments);
}

}  // namespace ravo::cli
