// SPDX-License-Identifier: Apache-2.0
// The parser calls back for each element as soon as it is whole, and drops it when it was used: what is held at a time
// is one VLAN or port.
#include "statistics.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <charconv>

namespace ravo::web {

namespace {

using nlohmann::json;

const json *member_of(const json &value, const char *name) {
    if (!value.is_object()) return nullptr;
    const auto found = value.find(name);
    return found == value.end() ? nullptr : &*found;
}

named_counts counts_of(const json &object, const char *name) {
    named_counts out;
    const json *found = member_of(object, name);
    if (found == nullptr || !found->is_object()) return out;
    for (const auto &[word, value] : found->items())
        if (value.is_number_unsigned()) out.emplace_back(word, value.get<std::uint64_t>());
    for (auto &[word, value] : out)
        std::transform(word.begin(), word.end(), word.begin(), [](unsigned char c) { return std::tolower(c); });
    return out;
}

counted counted_of(const json &object) {
    counted c;
    c.received = count_member(object, "received");
    c.sent = count_member(object, "sent");
    c.lost = count_member(object, "lost");
    c.outcomes = counts_of(object, "outcomes");
    c.types = counts_of(object, "types");
    return c;
}

constexpr int element_depth = 2;  // of an array's element, the document itself being 0

}  // namespace

std::uint64_t count_member(const json &value, const char *name) {
    const json *found = member_of(value, name);
    return found != nullptr && found->is_number_unsigned() ? found->get<std::uint64_t>() : 0;
}

double number_member(const json &value, const char *name) {
    const json *found = member_of(value, name);
    return found != nullptr && found->is_number() ? found->get<double>() : 0;
}

std::string text_member(const json &value, const char *name) {
    const json *found = member_of(value, name);
    return found != nullptr && found->is_string() ? found->get<std::string>() : "";
}

bool flag_member(const json &value, const char *name) {
    const json *found = member_of(value, name);
    return found != nullptr && found->is_boolean() && found->get<bool>();
}

bool each_element(std::string_view text, std::string_view array, const std::function<void(json &)> &use, json *rest) {
    std::string member;  // the document's member that is being read
    const auto step = [&](int depth, json::parse_event_t event, json &value) {
        if (event == json::parse_event_t::key && depth == 1) member = value.get<std::string>();
        const bool whole = event == json::parse_event_t::object_end || event == json::parse_event_t::value;
        if (!whole || depth != element_depth || member != array) return true;
        use(value);
        return false;  // not kept
    };
    json read = json::parse(text, step, /*allow_exceptions=*/false);
    const bool good = !read.is_discarded();
    if (rest != nullptr) *rest = good && read.is_object() ? std::move(read) : json::object();
    return good;
}

bool read_statistics(std::string_view text, const statistics_reader &to) {
    std::string member;
    const auto take = [&](const json &value) {
        if (member == "vlans" && to.vlan)
            to.vlan(static_cast<unsigned>(count_member(value, "vlan")), counted_of(value));
        if (member == "ports" && to.port) to.port(text_member(value, "port"), counted_of(value));
    };
    const auto step = [&](int depth, json::parse_event_t event, json &value) {
        if (event == json::parse_event_t::key && depth == 1) member = value.get<std::string>();
        if (event != json::parse_event_t::object_end) return true;
        if (depth == 1 && member == "total" && to.total) to.total(counted_of(value));
        if (depth != element_depth || (member != "vlans" && member != "ports")) return true;
        take(value);
        return false;
    };
    return !json::parse(text, step, /*allow_exceptions=*/false).is_discarded();
}

std::uint64_t last_count(std::string_view text, std::string_view name) {
    const std::string mark = "\"" + std::string(name) + "\":";
    const std::size_t at = text.rfind(mark);
    if (at == std::string_view::npos) return 0;
    text.remove_prefix(at + mark.size());
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    std::uint64_t number = 0;
    (void)std::from_chars(text.data(), text.data() + text.size(), number);  // what is no number counts as none
    return number;
}

std::uint64_t count_of(const named_counts &counts, std::string_view name) {
    const auto found = std::find_if(counts.begin(), counts.end(), [&](const auto &row) { return row.first == name; });
    return found == counts.end() ? 0 : found->second;
}

}  // namespace ravo::web
