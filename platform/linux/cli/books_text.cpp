// A message's line says, in this order: when it came, what it was, whose, where it came in, where it went, what became
// of it and why. What is not known is left out, but for VLAN and port, which are "-" then.
#include "cli/books_text.h"

#include <arpa/inet.h>
#include <time.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>

namespace ravo::cli {

namespace {

// Numbers of ports: 5120 + 64 * (module - 1) + port; modules 1 to 32, ports up to 63, the first module has no port 0.
constexpr std::uint32_t first_port = 5121;
constexpr std::uint32_t ports_begin = 5120;
constexpr std::uint32_t ports_a_module = 64;
constexpr std::uint32_t modules = 32;
constexpr std::uint32_t last_port = ports_begin + ports_a_module * modules - 1;

constexpr std::int64_t second = 1000000;

std::optional<std::uint32_t> read_number(std::string_view text, std::uint32_t most) {
    std::uint32_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value > most) return std::nullopt;
    return value;
}

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Tells whether the separators of an address stand where one of its forms has them, and nowhere else.
bool has_form(std::string_view text, std::size_t group, char separator) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool between = i % (group + 1) == group;
        if (between ? text[i] != separator : hex_digit(text[i]) < 0) return false;
    }
    return true;
}

std::string when(std::int64_t time_us, bool utc) {
    time_t seconds = static_cast<time_t>(time_us / second);
    struct tm parts {};
    if (utc)
        gmtime_r(&seconds, &parts);
    else
        localtime_r(&seconds, &parts);
    char text[64];
    const std::size_t size = strftime(text, sizeof text, utc ? "%Y-%m-%dT%H:%M:%S" : "%Y-%m-%d %H:%M:%S", &parts);
    char fraction[16];
    if (utc)
        std::snprintf(fraction, sizeof fraction, ".%06dZ", static_cast<int>(time_us % second));
    else
        std::snprintf(fraction, sizeof fraction, ".%03d", static_cast<int>(time_us % second / 1000));
    return std::string(text, size) + fraction;
}

std::string servers_text(const platform::book_entry &entry) {
    std::string out;
    const std::size_t kept = std::min<std::size_t>(entry.servers_count, entry.servers.size());
    for (std::size_t i = 0; i < kept; ++i) out += (i == 0 ? " to " : ", ") + address_text(entry.servers[i]);
    if (entry.servers_count > kept) out += " and " + std::to_string(entry.servers_count - kept) + " more";
    return out;
}

std::string option82_text(const platform::book_entry &entry) {
    if (entry.option82_size == 0) return {};
    const std::optional<relay_information> own = read_relay_information(entry);
    if (!own) return ", option 82 " + option82_hex(entry);
    return ", option 82 VLAN " + std::to_string(own->vlan) + " port " + std::to_string(own->module) + "/" +
           std::to_string(own->port) + " MAC " + mac_text(own->mac);
}

}  // namespace

std::string port_name(std::uint32_t port_ifindex) {
    if (port_ifindex == 0) return "-";
    if (port_ifindex < first_port || port_ifindex > last_port) return std::to_string(port_ifindex);
    const std::uint32_t number = port_ifindex - ports_begin;
    return std::to_string(number / ports_a_module + 1) + "/" + std::to_string(number % ports_a_module);
}

std::optional<std::uint32_t> read_port_name(std::string_view text) {
    const std::size_t slash = text.find('/');
    if (slash == std::string_view::npos) return std::nullopt;
    const auto module = read_number(text.substr(0, slash), modules);
    const auto port = read_number(text.substr(slash + 1), ports_a_module - 1);
    if (!module || !port || *module == 0 || (*module == 1 && *port == 0)) return std::nullopt;
    return ports_begin + ports_a_module * (*module - 1) + *port;
}

std::string mac_text(const hardware_address &mac) {
    char text[18];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    return text;
}

std::optional<hardware_address> read_mac(std::string_view text) {
    constexpr std::size_t pairs = 17, quads = 14;  // characters
    const bool good = (text.size() == pairs && (has_form(text, 2, ':') || has_form(text, 2, '-'))) ||
                      (text.size() == quads && has_form(text, 4, '.'));
    if (!good) return std::nullopt;
    hardware_address out{};
    std::size_t digits = 0;
    for (const char c : text) {
        if (hex_digit(c) < 0) continue;
        std::uint8_t &byte = out[digits++ / 2];
        byte = static_cast<std::uint8_t>(byte << 4 | hex_digit(c));
    }
    return out;
}

std::string time_text(std::int64_t time_us) {
    return when(time_us, /*utc=*/false);
}

std::string time_text_utc(std::int64_t time_us) {
    return when(time_us, /*utc=*/true);
}

std::string milliseconds_text(std::int32_t microseconds) {
    char text[24];
    std::snprintf(text, sizeof text, "%d.%03d", microseconds / 1000, microseconds % 1000);
    return text;
}

std::string address_text(std::uint32_t address) {
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &address, text, sizeof text);
    return text;
}

std::string xid_text(std::uint32_t xid) {
    char text[11];
    std::snprintf(text, sizeof text, "0x%08x", static_cast<unsigned>(xid));
    return text;
}

std::optional<relay_information> read_relay_information(const platform::book_entry &entry) {
    // RFC 3046: circuit id (1) of 6 bytes: 0, 4, VLAN low byte first, module, port; remote id (2) of 8: 0, 6, MAC.
    constexpr std::uint8_t circuit[] = {1, 6, 0, 4}, remote[] = {2, 8, 0, 6};
    constexpr std::size_t at_vlan = 4, at_module = 6, at_port = 7, at_remote = 8, at_mac = 12, size = 18;
    const auto &data = entry.option82;
    if (entry.option82_size != size || std::memcmp(data.data(), circuit, sizeof circuit) != 0 ||
        std::memcmp(data.data() + at_remote, remote, sizeof remote) != 0)
        return std::nullopt;
    relay_information out{};
    out.vlan = static_cast<std::uint16_t>(data[at_vlan] | data[at_vlan + 1] << 8);
    out.module = data[at_module];
    out.port = data[at_port];
    std::memcpy(out.mac.data(), data.data() + at_mac, out.mac.size());
    return out;
}

std::string option82_hex(const platform::book_entry &entry) {
    std::string out;
    for (std::size_t i = 0; i < entry.option82_size; ++i) {
        out += "0123456789abcdef"[entry.option82[i] >> 4];
        out += "0123456789abcdef"[entry.option82[i] & 15];
    }
    return out;
}

std::string message_name(const platform::book_entry &entry) {
    if (entry.type != 0) return std::string(platform::message_type_word(entry.type));
    return entry.op == 0 ? "-" : entry.op == 1 ? "request" : "reply";
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
    std::string out = time_text(entry.time_us) + " " + message_name(entry);
    if (entry.op != 0) out += " " + mac_text(entry.client) + " xid " + xid_text(entry.xid);
    out += " vlan " + (entry.vlan == 0 ? "-" : std::to_string(entry.vlan)) + " port " + port_name(entry.port_ifindex);
    out += ": " + std::string(platform::outcome_word(outcome)) + servers_text(entry) + " (" +
           std::string(platform::outcome_text(outcome)) + ")";
    if (entry.answered_us >= 0) out += ", " + milliseconds_text(entry.answered_us) + " ms after its request";
    return out + option82_text(entry);
}

}  // namespace ravo::cli
