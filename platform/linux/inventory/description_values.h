// SPDX-License-Identifier: Apache-2.0
// The values in the tables of a switch description, each read with its fault noted at its place in the file.
#ifndef PLATFORM_LINUX_INVENTORY_DESCRIPTION_VALUES_H
#define PLATFORM_LINUX_INVENTORY_DESCRIPTION_VALUES_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "inventory/switch_description.h"

#define TOML_EXCEPTIONS 0
// The parser asserts what it then reports as an error in the file ("[." is one): no file may end the daemon.
#define TOML_ASSERT(expression) static_assert(true)
#include <toml++/toml.h>

namespace ravo::platform {

struct placed_fault {
    toml::source_position place;
    std::string reason;
};

// One reading of a file: what was found so far, and where each thing was that may be there only once, by its words in a
// fault line ("port 1/1").
struct reading {
    switch_description found;
    std::unordered_map<std::string, toml::source_position> marks;
    std::vector<placed_fault> faults;
};

void note(reading &r, const toml::source_position &place, std::string reason);

// The faults as lines "FILE:LINE:COLUMN: reason", in the order of their places.
std::vector<std::string> fault_lines(const std::string &path, std::vector<placed_fault> faults);

// A text in quotes.
std::string quoted(std::string_view text);

// What a value is, for a person: "a table", "a number".
std::string type_name(const toml::node &node);

// Names as a person lists them: "a, b and c".
std::string listed(std::span<const std::string> all);

// Notes a thing that is there a second time. what: its words; remedy: what to do.
void mark_once(reading &r, const std::string &what, const toml::source_position &place, std::string_view remedy);

// What a table is called and which keys it may have.
struct table_shape {
    std::string_view name;
    std::span<const std::string_view> keys;
    std::string_view needs_text;  // those that it must have
};

// Notes each key that the shape does not have.
void check_keys(reading &r, const toml::table &table, const table_shape &shape);

// A number between two limits, both of them included. Nothing when it is missing, which is a fault, or no such number.
std::optional<std::uint32_t> read_number(reading &r, const toml::table &table, std::string_view key,
                                         const table_shape &shape, std::int64_t low, std::int64_t high);
// A key that may be left out, as the next two.
std::optional<std::uint32_t> read_optional_number(reading &r, const toml::table &table, std::string_view key,
                                                  std::int64_t low, std::int64_t high);
std::optional<bool> read_flag(reading &r, const toml::table &table, std::string_view key);
// *out stays as it is when there is no such number.
void read_optional(reading &r, const toml::table &table, std::string_view key, std::int64_t low, std::int64_t high,
                   std::uint32_t *out);

// The name of a network device under the key "device", which must be there.
std::optional<std::string> read_device(reading &r, const toml::table &table, const table_shape &shape);

}  // namespace ravo::platform

#endif
