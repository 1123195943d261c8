// SPDX-License-Identifier: Apache-2.0
// A message's line says, in this order: when it came, what it was, whose, where it came in, where it went, what became
// of it and why. What is not known is left out, but for VLAN and port, which are "-" then.
#include "commands/books_text.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "base/text.h"
#include "inventory/inventory.h"
#include "inventory/inventory_names.h"
#include "port_number.h"

namespace ravo::cli {

namespace {

// RFC 3046 section 2.0.
constexpr std::uint8_t suboption_circuit = 1;
constexpr std::uint8_t suboption_remote = 2;

std::string servers_text(const platform::book_entry &entry) {
    std::string out;
    const std::size_t kept = std::min<std::size_t>(entry.servers_count, entry.servers.size());
    for (std::size_t i = 0; i < kept; ++i) out += (i == 0 ? " to " : ", ") + platform::ipv4_text(entry.servers[i]);
    if (entry.servers_count > kept) out += " and " + std::to_string(entry.servers_count - kept) + " more";
    return out;
}

// Of a reply: what it offers or gives, and who gave it.
std::string answer_text(const platform::book_entry &entry) {
    constexpr std::uint8_t op_reply = 2;
    if (entry.op != op_reply) return {};
    std::string out = entry.address == 0 ? "" : ", " + platform::ipv4_text(entry.address);
    if (entry.server != 0) out += (out.empty() ? ", from " : " from ") + platform::ipv4_text(entry.server);
    return out;
}

// A value that others have made is often text.
std::string value_text(std::span<const std::uint8_t> value) {
    const auto is_plain = [](std::uint8_t c) { return c >= ' ' && c < 0x7F && c != '"' && c != '\\'; };
    if (value.empty() || !std::all_of(value.begin(), value.end(), is_plain)) return hex_text(value);
    return '"' + std::string(value.begin(), value.end()) + '"';
}

std::string suboption_name(std::uint8_t code) {
    if (code == suboption_circuit) return "circuit id";
    if (code == suboption_remote) return "remote id";
    return "sub-option " + std::to_string(code);
}

// Option 82 of other relays, sub-option by sub-option (RFC 3046 section 2.0). What the recorder has cut off is "...".
std::string foreign_option82_text(const platform::book_entry &entry) {
    const std::span<const std::uint8_t> kept = option82_kept(entry);
    std::string out;
    for (std::size_t at = 0; at < entry.option82_length;) {
        if (at + 2 > kept.size() && kept.size() < entry.option82_length) return out + " ...";
        const std::size_t end = at + 2 > kept.size() ? SIZE_MAX : at + 2 + kept[at + 1];
        if (end > entry.option82_length)
            return " " + hex_text(kept) + (kept.size() < entry.option82_length ? "..." : "") + " (malformed)";
        if (end > kept.size())
            return out + " " + suboption_name(kept[at]) + " " + hex_text(kept.subspan(at + 2)) + "...";
        const std::string value = value_text(kept.subspan(at + 2, end - at - 2));
        out += " " + suboption_name(kept[at]) + " " + (value.empty() ? "empty" : value);
        at = end;
    }
    return out.empty() ? " empty" : out;
}

std::string option82_text(const platform::book_entry &entry) {
    if (!entry.has_option82) return {};
    const std::optional<relay_information> own = read_relay_information(entry);
    if (!own) return ", option 82" + foreign_option82_text(entry);
    return ", option 82 VLAN " + std::to_string(own->vlan) + " port " + std::to_string(own->module) + "/" +
           std::to_string(own->port) + " MAC " + mac_text(own->mac);
}

// Whose it was, and of a DHCP message its transaction.
std::string client_text(const platform::book_entry &entry) {
    if (entry.has_message) return " " + mac_text(entry.client) + " xid " + xid_text(entry.xid);
    return entry.client == hardware_address{} ? std::string() : " " + mac_text(entry.client);
}

}  // namespace

std::string port_name(std::uint32_t port_ifindex) {
    char text[PORT_NUMBER_TEXT_SIZE];
    return port_number_text(port_ifindex, text);
}

std::optional<std::uint32_t> read_port_name(std::string_view text) {
    const std::uint32_t number = port_number_parse(std::string(text).c_str());
    if (number != 0) return number;
    for (const platform::inventory_row &row : platform::inventory_rows())
        if (row.kind == platform::inventory_row::what::port && row.device == text && row.ifindex != 0)
            return row.ifindex;
    return std::nullopt;
}

std::string interface_name(std::uint32_t switch_ifindex) {
    const std::uint16_t vlan = platform::vlan_of_number(switch_ifindex);
    return vlan == 0 ? std::to_string(switch_ifindex) : "vlan" + std::to_string(vlan);
}

std::string milliseconds_text(std::int32_t microseconds) {
    char text[24];
    std::snprintf(text, sizeof text, "%d.%03d", microseconds / 1000, microseconds % 1000);
    return text;
}

std::string xid_text(std::uint32_t xid) {
    char text[9];
    std::snprintf(text, sizeof text, "%X", static_cast<unsigned>(htonl(xid)));
    return text;
}

std::optional<relay_information> read_relay_information(const platform::book_entry &entry) {
    // RFC 3046: circuit id (1) of 6 bytes: 0, 4, VLAN low byte first, module, port; remote id (2) of 8: 0, 6, MAC.
    constexpr std::uint8_t circuit[] = {1, 6, 0, 4}, remote[] = {2, 8, 0, 6};
    constexpr std::size_t at_vlan = 4, at_module = 6, at_port = 7, at_remote = 8, at_mac = 12, size = 18;
    const auto &data = entry.option82;
    if (entry.option82_length != size || std::memcmp(data.data(), circuit, sizeof circuit) != 0 ||
        std::memcmp(data.data() + at_remote, remote, sizeof remote) != 0)
        return std::nullopt;
    relay_information out{};
    out.vlan = static_cast<std::uint16_t>(data[at_vlan] | data[at_vlan + 1] << 8);
    out.module = data[at_module];
    out.port = data[at_port];
    std::memcpy(out.mac.data(), data.data() + at_mac, out.mac.size());
    return out;
}

std::span<const std::uint8_t> option82_kept(const platform::book_entry &entry) {
    return std::span(entry.option82).first(std::min<std::size_t>(entry.option82_length, entry.option82.size()));
}

std::optional<std::span<const std::uint8_t>> option82_value(const platform::book_entry &entry, std::uint8_t suboption) {
    const std::span<const std::uint8_t> kept = option82_kept(entry);
    for (std::size_t at = 0; at + 2 <= kept.size(); at += 2U + kept[at + 1]) {
        if (at + 2 + kept[at + 1] > kept.size()) return std::nullopt;
        if (kept[at] == suboption) return kept.subspan(at + 2, kept[at + 1]);
    }
    return std::nullopt;
}

std::string hex_text(std::span<const std::uint8_t> bytes) {
    std::string out;
    for (const std::uint8_t byte : bytes) {
        out += "0123456789abcdef"[byte >> 4];
        out += "0123456789abcdef"[byte & 15];
    }
    return out;
}

std::uint16_t vlan_of(const platform::book_entry &entry) {
    constexpr std::uint16_t vid_bits = 0x0FFF;
    if (entry.vlan != 0) return entry.vlan;
    if (entry.client_vlan != 0 || entry.tag.protocol == 0) return entry.client_vlan;
    return entry.tag.tci & vid_bits;
}

std::string message_name(const platform::book_entry &entry) {
    if (entry.type != 0) return std::string(platform::message_type_word(entry.type));
    if (!entry.has_message) return "-";
    return entry.op == 1 ? "request" : entry.op == 2 ? "reply" : "message";
}

std::string bad_port_line(std::string_view text) {
    return "% \"" + std::string(text) + "\" is no port; give module and port, such as 1/2\n";
}

std::string bad_mac_line(std::string_view text) {
    return "% \"" + std::string(text) +
           "\" is no hardware address; give it as 02:00:00:00:00:01, 02-00-00-00-00-01 or 0200.0000.0001\n";
}

std::string entry_line(const platform::book_entry &entry) {
    const auto outcome = static_cast<relay_outcome>(entry.outcome);
    const std::uint16_t vlan = vlan_of(entry);
    std::string out = time_text(entry.time_us) + " " + message_name(entry) + client_text(entry);
    out += " vlan " + (vlan == 0 ? "-" : std::to_string(vlan)) + " port " + port_name(entry.port_ifindex);
    out += ": " + std::string(platform::outcome_word(outcome)) + servers_text(entry) + " (" +
           std::string(platform::outcome_text(outcome)) + ")";
    if (entry.rebroadcast && outcome != OUTCOME_REBROADCAST) out += ", broadcast again locally before";
    out += answer_text(entry);
    if (entry.answered_us >= 0) out += ", " + milliseconds_text(entry.answered_us) + " ms after its request";
    return out + option82_text(entry);
}

}  // namespace ravo::cli
