// SPDX-License-Identifier: Apache-2.0
// Whether the relay's data holds exactly what a line asks for. What the relay's refusal says is no proof: it takes
// client identifiers that differ behind their fourth byte for the same, and an address of 0.0.0.0 for one that is
// there.
#include "commands/relay_held.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <span>
#include <string_view>

#include "commands/books_text.h"

namespace ravo::cli {

namespace {

using words = std::vector<std::string>;

std::uint32_t policy_number(std::string_view name) {
    return name == "replace" ? 1 : name == "drop" ? 2 : name == "keep" ? 3 : 0;
}

std::unique_ptr<relay_settings> settings_of(const asked_setting &asked) {
    auto out = std::make_unique<relay_settings>();
    asked.relay.settings(out.get());
    return out;
}

// Fetches the record of the current interface. Returns false when there is none.
bool record_of(const asked_setting &asked, relay_interface *out) {
    *out = {};
    return asked.interface != nullptr && asked.relay.interface_get(asked.interface, out) == 1;
}

// Reads an address, in network byte order; 0, which no server has, for a text that is none.
std::uint32_t read_address(const std::string &text) {
    in_addr out{};
    return inet_pton(AF_INET, text.c_str(), &out) == 1 ? out.s_addr : 0;
}

std::string identifier_text(const relay_option61_host &host) {
    return hex_text(
        std::span(host.client_id).first(std::min<std::size_t>(host.client_id_length, sizeof host.client_id)));
}

}  // namespace

bool option_is_on(const asked_setting &asked) {
    return settings_of(asked)->option_state == 1;
}

bool option_is_off(const asked_setting &asked) {
    return settings_of(asked)->option_state == 0;
}

bool check_is_on(const asked_setting &asked) {
    return settings_of(asked)->check == 1;
}

bool check_is_off(const asked_setting &asked) {
    return settings_of(asked)->check == 0;
}

bool policy_is(const asked_setting &asked) {
    return asked.arguments.size() == 1 && settings_of(asked)->policy == policy_number(asked.arguments[0]);
}

bool hops_are(const asked_setting &asked) {
    return asked.arguments.size() == 1 &&
           settings_of(asked)->hops == std::strtoul(asked.arguments[0].c_str(), nullptr, 10);
}

bool has_server(const asked_setting &asked) {
    relay_interface iface;
    const std::uint32_t server = asked.arguments.size() == 1 ? read_address(asked.arguments[0]) : 0;
    return server != 0 && record_of(asked, &iface) &&
           std::count(std::begin(iface.servers), std::end(iface.servers), server) != 0;
}

bool has_option60_host(const asked_setting &asked) {
    relay_interface iface;
    const words &given = asked.arguments;
    if (given.size() != 3 || !record_of(asked, &iface)) return false;
    const std::uint32_t rule = given[1] == "exact-match" ? 0 : 1;
    const std::uint32_t server = read_address(given[2]);
    return std::any_of(std::begin(iface.option60), std::end(iface.option60), [&](const relay_option60_host &host) {
        return host.used == 1 && host.match_rule == rule && host.server == server &&
               given[0] == std::string_view(host.vendor, strnlen(host.vendor, sizeof host.vendor));
    });
}

bool has_option61_host(const asked_setting &asked) {
    relay_interface iface;
    const words &given = asked.arguments;
    if (given.size() != 2 || !given[0].starts_with("0x") || !record_of(asked, &iface)) return false;
    std::string digits = given[0].substr(2);
    if (digits.size() % 2 != 0) digits.insert(0, "0");
    for (char &digit : digits) digit = static_cast<char>(std::tolower(static_cast<unsigned char>(digit)));
    const std::uint32_t server = read_address(given[1]);
    return std::any_of(std::begin(iface.option61), std::end(iface.option61), [&](const relay_option61_host &host) {
        return host.used == 1 && host.server == server && identifier_text(host) == digits;
    });
}

}  // namespace ravo::cli
