// SPDX-License-Identifier: Apache-2.0
// Each value is read by what it may be; what it is not becomes a fault with its line and column and what to write
// instead. Faults are collected, and sorted by their place at the end.
#include "inventory/description_values.h"

#include <net/if.h>

#include <algorithm>
#include <tuple>

namespace ravo::platform {

namespace {

// One line whatever the parser or a value in the file put into the text.
std::string one_line(std::string text) {
    for (char &c : text)
        if (static_cast<unsigned char>(c) < ' ' || c == 0x7F) c = ' ';
    return text;
}

std::string fault_line(const std::string &path, const placed_fault &f) {
    return path + ":" + std::to_string(f.place.line) + ":" + std::to_string(f.place.column) + ": " + one_line(f.reason);
}

const toml::node *required(reading &r, const toml::table &table, std::string_view key, const table_shape &shape) {
    const toml::node *value = table.get(key);
    if (value == nullptr)
        note(r, table.source().begin,
             std::string(shape.name) + " without " + quoted(key) + "; it needs " + std::string(shape.needs_text));
    return value;
}

std::optional<std::uint32_t> number_of(reading &r, const toml::node &node, std::string_view key, std::int64_t low,
                                       std::int64_t high) {
    const std::string range = std::to_string(low) + " to " + std::to_string(high);
    const auto *number = node.as_integer();
    if (number == nullptr) {
        note(r, node.source().begin, quoted(key) + " must be a number from " + range + ", not " + type_name(node));
        return std::nullopt;
    }
    if (number->get() < low || number->get() > high) {
        note(r, node.source().begin,
             std::string(key) + " " + std::to_string(number->get()) + " is out of range; it must be " + range);
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(number->get());
}

// What the kernel takes as a device name.
fault name_fault(std::string_view name) {
    if (name.empty()) return {"\"device\" is empty; give the name of a network device"};
    if (name.size() >= IFNAMSIZ)
        return {"device " + quoted(name) + " is too long; a device name has at most " + std::to_string(IFNAMSIZ - 1) +
                " bytes"};
    const auto bad = [](unsigned char c) { return c <= ' ' || c == '/' || c == ':' || c == 0x7F; };
    if (name == "." || name == ".." || std::any_of(name.begin(), name.end(), bad))
        return {"\"device\" cannot be a network device's name; one has no blanks, control characters, \"/\" or \":\""};
    return {};
}

}  // namespace

void note(reading &r, const toml::source_position &place, std::string reason) {
    r.faults.push_back({place, std::move(reason)});
}

std::string quoted(std::string_view text) {
    return "\"" + std::string(text) + "\"";
}

std::string type_name(const toml::node &node) {
    switch (node.type()) {
        case toml::node_type::table:
            return "a table";
        case toml::node_type::array:
            return node.is_array_of_tables() ? "a list of tables" : "a list";
        case toml::node_type::string:
            return "a text";
        case toml::node_type::integer:
            return "a number";
        case toml::node_type::floating_point:
            return "a number with a fraction";
        case toml::node_type::boolean:
            return "true or false";
        default:
            return "a date or time";
    }
}

// Notes a thing that is there a second time.
void mark_once(reading &r, const std::string &what, const toml::source_position &place, std::string_view remedy) {
    const auto [first, is_new] = r.marks.emplace(what, place);
    if (is_new) return;
    note(r, place, what + " is already in line " + std::to_string(first->second.line) + "; " + std::string(remedy));
}

std::vector<std::string> fault_lines(const std::string &path, std::vector<placed_fault> faults) {
    std::stable_sort(faults.begin(), faults.end(), [](const placed_fault &a, const placed_fault &b) {
        return std::tie(a.place.line, a.place.column) < std::tie(b.place.line, b.place.column);
    });
    std::vector<std::string> lines;
    for (const placed_fault &f : faults) lines.push_back(fault_line(path, f));
    return lines;
}

std::string listed(std::span<const std::string> all) {
    std::string text;
    for (std::size_t i = 0; i < all.size(); ++i) {
        if (i != 0) text += i + 1 == all.size() ? " and " : ", ";
        text += all[i];
    }
    return text;
}

void check_keys(reading &r, const toml::table &table, const table_shape &shape) {
    for (const auto &[key, value] : table)
        if (std::find(shape.keys.begin(), shape.keys.end(), key.str()) == shape.keys.end())
            note(r, key.source().begin,
                 "unknown key " + quoted(key.str()) + " in " + std::string(shape.name) + "; it has " +
                     listed(std::vector<std::string>(shape.keys.begin(), shape.keys.end())));
}

std::optional<std::uint32_t> read_number(reading &r, const toml::table &table, std::string_view key,
                                         const table_shape &shape, std::int64_t low, std::int64_t high) {
    const toml::node *node = required(r, table, key, shape);
    return node == nullptr ? std::nullopt : number_of(r, *node, key, low, high);
}

std::optional<std::uint32_t> read_optional_number(reading &r, const toml::table &table, std::string_view key,
                                                  std::int64_t low, std::int64_t high) {
    const toml::node *node = table.get(key);
    return node == nullptr ? std::nullopt : number_of(r, *node, key, low, high);
}

std::optional<bool> read_flag(reading &r, const toml::table &table, std::string_view key) {
    const toml::node *node = table.get(key);
    if (node == nullptr) return std::nullopt;
    const auto *flag = node->as_boolean();
    if (flag != nullptr) return flag->get();
    note(r, node->source().begin, quoted(key) + " must be true or false, not " + type_name(*node));
    return std::nullopt;
}

void read_optional(reading &r, const toml::table &table, std::string_view key, std::int64_t low, std::int64_t high,
                   std::uint32_t *out) {
    const toml::node *node = table.get(key);
    if (node != nullptr) *out = number_of(r, *node, key, low, high).value_or(*out);
}

std::optional<std::string> read_device(reading &r, const toml::table &table, const table_shape &shape) {
    const toml::node *node = required(r, table, "device", shape);
    if (node == nullptr) return std::nullopt;
    const auto *text = node->as_string();
    if (text == nullptr) {
        note(r, node->source().begin, "\"device\" must be a device's name in quotes, not " + type_name(*node));
        return std::nullopt;
    }
    if (const fault wrong = name_fault(text->get())) {
        note(r, node->source().begin, wrong.text);
        return std::nullopt;
    }
    return text->get();
}

}  // namespace ravo::platform
