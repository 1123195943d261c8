// SPDX-License-Identifier: Apache-2.0
// The daemon's statistics document, read without holding all of it as values: with thousands of VLANs it is large.
#ifndef FRONT_WEB_STATISTICS_H
#define FRONT_WEB_STATISTICS_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace ravo::web {

using named_counts = std::vector<std::pair<std::string, std::uint64_t>>;  // in the order of the document

// What was counted in one place.
struct counted {
    std::uint64_t received = 0;
    std::uint64_t sent = 0;
    std::uint64_t lost = 0;  // in the total only
    named_counts outcomes;   // "relayed", ...
    named_counts types;      // "discover", ...; empty when the daemon does not count them
};

// Calls use with each element of the array that is this member of the document. Elements and members behind a fault in
// the text are left out; returns whether all of it was well-formed. rest, if wanted: the document without its arrays'
// elements.
bool each_element(std::string_view text, std::string_view array, const std::function<void(nlohmann::json &)> &use,
                  nlohmann::json *rest = nullptr);

// What is called for the parts of a document as they are read; empty functions are left out.
struct statistics_reader {
    std::function<void(const counted &c)> total = {};
    std::function<void(unsigned vlan, const counted &c)> vlan = {};
    std::function<void(const std::string &port, const counted &c)> port = {};
};

// Reads "show ip dhcp relay statistics | json". Returns whether it is well-formed.
bool read_statistics(std::string_view text, const statistics_reader &to);

// Members of a value that may be anything: 0, "" and false for one that is not there or of another kind.
std::uint64_t count_member(const nlohmann::json &value, const char *name);
double number_member(const nlohmann::json &value, const char *name);
std::string text_member(const nlohmann::json &value, const char *name);
bool flag_member(const nlohmann::json &value, const char *name);

// The number that is last in a document under a name, also where only its end is known; 0 for none.
std::uint64_t last_count(std::string_view text, std::string_view name);

// A count by name, 0 for none.
std::uint64_t count_of(const named_counts &counts, std::string_view name);

}  // namespace ravo::web

#endif
