// SPDX-License-Identifier: Apache-2.0
// Settings, addresses and trust come in the daemon's keyed view: column and -100, or a row's key, as 32-bit words in
// host byte order (an address in network byte order). The rest are JSON documents, read an element at a time.
#include "picture.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>

namespace ravo::snmp {

namespace {

using nlohmann::json;

constexpr std::uint32_t first_interface = 1025;
constexpr std::uint32_t last_interface = 5118;
constexpr std::size_t largest_outcome = 40;
constexpr std::size_t most_outcomes = 256;
constexpr std::int32_t value_key = -100;

constexpr std::array<std::string_view, 8> received_names = {"discover", "offer", "request", "ack",
                                                            "decline",  "nak",   "inform",  "release"};
// Types by number; the first is that of messages without one.
constexpr std::array<std::string_view, 9> type_names = {"none", "discover", "offer",   "request", "decline",
                                                        "ack",  "nak",      "release", "inform"};

// ---- Values that may be anything ----

const json *member_of(const json &value, const char *name) {
    if (!value.is_object()) return nullptr;
    const auto found = value.find(name);
    return found == value.end() ? nullptr : &*found;
}

std::uint64_t count_of(const json &value, const char *name) {
    const json *found = member_of(value, name);
    return found != nullptr && found->is_number_unsigned() ? found->get<std::uint64_t>() : 0;
}

std::uint32_t gauge_of(const json &value, const char *name) {
    return static_cast<std::uint32_t>(std::min<std::uint64_t>(count_of(value, name), 0xFFFFFFFF));
}

std::string text_of(const json &value, const char *name) {
    const json *found = member_of(value, name);
    return found != nullptr && found->is_string() ? found->get<std::string>() : "";
}

bool flag_of(const json &value, const char *name) {
    const json *found = member_of(value, name);
    return found != nullptr && found->is_boolean() && found->get<bool>();
}

std::optional<std::uint32_t> read_address(const std::string &text) {
    in_addr address{};
    if (inet_pton(AF_INET, text.c_str(), &address) != 1) return std::nullopt;
    return ntohl(address.s_addr);
}

// Six pairs of digits; anything else reads as zeros.
std::array<std::uint8_t, 6> read_mac(const std::string &text) {
    std::array<std::uint8_t, 6> mac{};
    if (text.size() != 17) return mac;
    std::array<std::uint8_t, 6> read{};
    for (std::size_t i = 0; i < read.size(); ++i) {
        const char *at = text.data() + 3 * i;
        const auto [end, fault] = std::from_chars(at, at + 2, read[i], 16);
        if (fault != std::errc{} || end != at + 2) return mac;
    }
    return read;
}

std::optional<std::uint32_t> read_hex(std::string_view text) {
    if (text.starts_with("0x") || text.starts_with("0X")) text.remove_prefix(2);
    std::uint32_t number = 0;
    const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), number, 16);
    if (fault != std::errc{} || end != text.data() + text.size() || text.empty()) return std::nullopt;
    return number;
}

// ---- Documents ----

// Calls use with each element of the document's arrays that are members of this name; all else goes to rest.
template <typename Use>
bool read_document(const std::string &text, std::string_view array, json *rest, Use use) {
    constexpr int element_depth = 2;
    std::string member;
    const auto step = [&](int depth, json::parse_event_t event, json &value) {
        if (event == json::parse_event_t::key && depth == 1) member = value.get<std::string>();
        const bool whole = event == json::parse_event_t::object_end;
        if (!whole || depth != element_depth || member != array) return true;
        use(value);
        return false;
    };
    json read = json::parse(text, step, /*allow_exceptions=*/false);
    if (!read.is_object()) return false;
    *rest = std::move(read);
    return true;
}

bool take_interfaces(picture *p, const std::string &text) {
    std::vector<interface_row> rows;
    json rest;
    const bool good = read_document(text, "interfaces", &rest, [&](const json &element) {
        const std::uint32_t number = interface_number(text_of(element, "name"));
        if (number == 0) return;
        rows.push_back({number, read_address(text_of(element, "address")).value_or(0),
                        read_mac(text_of(element, "mac")), flag_of(element, "local_relay")});
    });
    if (!good) return false;
    std::sort(rows.begin(), rows.end(), [](const auto &a, const auto &b) { return a.ifindex < b.ifindex; });
    p->interfaces = std::move(rows);
    const json *received = member_of(rest, "received");
    for (std::size_t i = 0; received != nullptr && i < received_names.size(); ++i)
        p->received[i] = gauge_of(*received, std::string(received_names[i]).c_str());
    return true;
}

// Words are kept once, and in the order of an index: shorter ones first.
struct statistics_rows {
    std::map<std::pair<std::size_t, std::string>, std::vector<std::pair<std::uint32_t, std::uint64_t>>> by_word;
    std::vector<type_row> types;
};

void add_types(statistics_rows *to, std::uint32_t ifindex, const json &element) {
    const json *types = member_of(element, "types");
    if (types == nullptr || !types->is_object()) return;
    for (const auto &[name, count] : types->items()) {
        std::string word = name;
        std::transform(word.begin(), word.end(), word.begin(), [](unsigned char c) { return std::tolower(c); });
        const auto place = std::find(type_names.begin(), type_names.end(), word);
        if (place == type_names.end() || !count.is_number_unsigned() || count == 0u) continue;
        to->types.push_back(
            {ifindex, static_cast<std::uint32_t>(place - type_names.begin()) + 1, count.get<std::uint64_t>()});
    }
}

void add_outcomes(statistics_rows *to, std::uint32_t ifindex, const json &element) {
    const json *outcomes = member_of(element, "outcomes");
    if (outcomes == nullptr || !outcomes->is_object()) return;
    for (const auto &[word, count] : outcomes->items()) {
        if (!count.is_number_unsigned() || count == 0u || word.empty() || word.size() > largest_outcome) continue;
        const std::pair<std::size_t, std::string> key(word.size(), word);
        if (!to->by_word.contains(key) && to->by_word.size() == most_outcomes) continue;
        to->by_word[key].emplace_back(ifindex, count.get<std::uint64_t>());
    }
}

bool take_statistics(picture *p, const std::string &text) {
    statistics_rows rows;
    json rest;
    const bool good = read_document(text, "vlans", &rest, [&](const json &element) {
        const std::uint64_t vlan = count_of(element, "vlan");
        if (vlan < 1 || vlan > 4094) return;
        add_types(&rows, static_cast<std::uint32_t>(1024 + vlan), element);
        add_outcomes(&rows, static_cast<std::uint32_t>(1024 + vlan), element);
    });
    if (!good) return false;
    p->outcome_words.clear();
    p->outcomes.clear();
    for (auto &[key, counts] : rows.by_word) {
        const auto place = static_cast<std::uint32_t>(p->outcome_words.size());
        p->outcome_words.push_back(key.second);
        for (const auto &[ifindex, messages] : counts) p->outcomes.push_back({ifindex, place, messages});
    }
    const auto by_index = [](const outcome_row &a, const outcome_row &b) {
        return std::pair(a.ifindex, a.word) < std::pair(b.ifindex, b.word);
    };
    std::sort(p->outcomes.begin(), p->outcomes.end(), by_index);
    std::sort(rows.types.begin(), rows.types.end(), [](const type_row &a, const type_row &b) {
        return std::pair(a.ifindex, a.type) < std::pair(b.ifindex, b.type);
    });
    p->types = std::move(rows.types);
    return true;
}

bool take_servers(picture *p, const std::string &text) {
    std::vector<server_row> rows;
    json rest;
    const bool good = read_document(text, "servers", &rest, [&](const json &element) {
        const auto address = read_address(text_of(element, "server"));
        const std::uint32_t number = interface_number(text_of(element, "interface"));
        if (!address || number == 0) return;
        rows.push_back({number, *address, count_of(element, "asked"), count_of(element, "answered"),
                        gauge_of(element, "median_us"), gauge_of(element, "p99_us"),
                        gauge_of(element, "silent_seconds")});
    });
    if (!good) return false;
    std::sort(rows.begin(), rows.end(), [](const server_row &a, const server_row &b) {
        return std::pair(a.ifindex, a.address) < std::pair(b.ifindex, b.address);
    });
    p->servers = std::move(rows);
    return true;
}

// The sum at the end of a list that was too long to be kept.
std::uint32_t total_of(std::string_view tail) {
    constexpr std::string_view mark = "\"total\": ";
    const std::size_t at = tail.rfind(mark);
    if (at == std::string_view::npos) return 0;
    tail.remove_prefix(at + mark.size());
    std::uint32_t number = 0;
    (void)std::from_chars(tail.data(), tail.data() + tail.size(), number);  // what is no number counts as none
    return number;
}

// The list may be cut off when it is very long: what came counts.
bool take_transactions(picture *p, const client::reply &answer) {
    std::vector<transaction_row> rows;
    json rest = json::object();
    std::size_t seen = 0;
    const bool good = read_document(answer.text, "transactions", &rest, [&](const json &element) {
        const auto xid = read_hex(text_of(element, "xid"));
        ++seen;
        if (xid && rows.size() < most_transactions)
            rows.push_back({*xid, gauge_of(element, "module"), gauge_of(element, "port")});
    });
    if (!good && !answer.cut) return false;
    std::sort(rows.begin(), rows.end(), [](const auto &a, const auto &b) { return a.xid < b.xid; });
    rows.erase(std::unique(rows.begin(), rows.end(), [](const auto &a, const auto &b) { return a.xid == b.xid; }),
               rows.end());
    p->transactions = std::move(rows);
    p->transactions_total =
        std::max({gauge_of(rest, "total"), total_of(answer.tail), static_cast<std::uint32_t>(seen)});
    return true;
}

// ---- The keyed view ----

// A 32-bit word of a key in host byte order.
std::uint32_t word_at(std::span<const std::uint8_t> key, std::size_t place) {
    std::uint32_t word = 0;
    std::memcpy(&word, key.data() + 4 * place, sizeof word);
    return word;
}

// The number of a value line. The hop limit's line is the one that people get too: it has a title before a colon.
std::optional<std::int64_t> value_of(std::string_view line) {
    line.remove_prefix(std::min(line.find(':') + 1, line.size()));
    line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
    std::int64_t number = 0;
    const auto [end, fault] = std::from_chars(line.data(), line.data() + line.size(), number);
    return fault == std::errc{} ? std::optional(number) : std::nullopt;
}

bool take_settings(picture *p, const std::vector<client::keyed_line> &lines) {
    p->settings = {};
    p->has_setting = {};
    for (const client::keyed_line &line : lines) {
        if (line.key.size() != 8 || static_cast<std::int32_t>(word_at(line.key, 1)) != value_key) continue;
        const std::uint32_t column = word_at(line.key, 0);
        const auto number = value_of(line.text);
        if (column == 0 || column >= setting_columns || !number) continue;
        p->settings[column] = *number;
        p->has_setting[column] = true;
    }
    return true;
}

bool is_interface(std::uint32_t number) {
    return number >= first_interface && number <= last_interface;
}

bool take_addresses(picture *p, const std::vector<std::vector<std::uint8_t>> &keys) {
    p->addresses.clear();
    for (const auto &key : keys)
        if (key.size() == 8 && is_interface(word_at(key, 0)))
            p->addresses.push_back({word_at(key, 0), ntohl(word_at(key, 1))});
    std::sort(p->addresses.begin(), p->addresses.end());
    p->addresses.erase(std::unique(p->addresses.begin(), p->addresses.end()), p->addresses.end());
    return true;
}

bool take_trusted(picture *p, const std::vector<std::vector<std::uint8_t>> &keys) {
    p->trusted.clear();
    for (const auto &key : keys)
        if (key.size() == 4 && is_interface(word_at(key, 0))) p->trusted.push_back(word_at(key, 0));
    std::sort(p->trusted.begin(), p->trusted.end());
    p->trusted.erase(std::unique(p->trusted.begin(), p->trusted.end()), p->trusted.end());
    return true;
}

}  // namespace

std::uint32_t interface_number(std::string_view name) {
    std::uint32_t vlan = 0;
    if (!name.starts_with("vlan")) return 0;
    const auto [end, fault] = std::from_chars(name.data() + 4, name.data() + name.size(), vlan);
    const bool good = fault == std::errc{} && end == name.data() + name.size() && vlan >= 1 && vlan <= 4094;
    return good ? 1024 + vlan : 0;
}

std::string_view command_of(part wanted) {
    switch (wanted) {
        case part::settings:
            return "show ip dhcp relay";
        case part::interfaces:
            return "show ip dhcp relay detail | json";
        case part::addresses:
            return "show ip dhcp relay addr_tbl 0 0.0.0.0";
        case part::trusted:
            return "show ip dhcp relay trust_tbl 0";
        case part::statistics:
            return "show ip dhcp relay statistics | json";
        case part::servers:
            return "show ip dhcp relay server | json";
        case part::transactions:
            return "show ip dhcp relay xid-port-mapping | json";
    }
    return {};
}

std::uint8_t view_of(part wanted) {
    const bool keyed = wanted == part::settings || wanted == part::addresses || wanted == part::trusted;
    return keyed ? client::view_keyed : std::uint8_t{0};
}

bool take_part(picture *p, part which, const client::reply &answer) {
    switch (which) {
        case part::settings:
            return take_settings(p, answer.values);
        case part::interfaces:
            return take_interfaces(p, answer.text);
        case part::addresses:
            return take_addresses(p, answer.row_keys);
        case part::trusted:
            return take_trusted(p, answer.row_keys);
        case part::statistics:
            return take_statistics(p, answer.text);
        case part::servers:
            return take_servers(p, answer.text);
        case part::transactions:
            return take_transactions(p, answer);
    }
    return false;
}

}  // namespace ravo::snmp
