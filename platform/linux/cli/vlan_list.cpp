// SPDX-License-Identifier: Apache-2.0
// A list is read item by item; one bad item spoils it all, so that nothing is half-applied.
#include "cli/vlan_list.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <utility>

namespace ravo::cli {

namespace {

constexpr unsigned last_vlan_id = 4094;

// The VLAN id of a text, 0 for any other text.
unsigned read_id(std::string_view text) {
    unsigned id = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') return 0;
        id = id * 10 + static_cast<unsigned>(c - '0');
        if (id > last_vlan_id) return 0;
    }
    return id;
}

struct id_range {
    unsigned first = 0;
    unsigned last = 0;
};

fault read_range(std::string_view text, id_range *out) {
    const std::size_t dash = text.find('-');
    out->first = read_id(text.substr(0, dash));
    out->last = dash == std::string_view::npos ? out->first : read_id(text.substr(dash + 1));
    const std::string quoted = "\"" + std::string(text) + "\"";
    if (out->first == 0 || out->last == 0)
        return {quoted + " is neither a VLAN id from 1 to 4094 nor a range of them such as 20-30"};
    if (out->first > out->last) return {quoted + " is a range whose end is below its beginning"};
    return {};
}

}  // namespace

fault read_vlan_list(std::string_view text, std::vector<std::uint16_t> *out) {
    std::vector<std::uint16_t> ids;
    std::array<bool, last_vlan_id + 1> listed{};
    for (std::size_t at = 0; at <= text.size();) {
        const std::size_t end = std::min(text.find(',', at), text.size());
        id_range range;
        fault wrong = read_range(text.substr(at, end - at), &range);
        if (wrong) return wrong;
        for (unsigned id = range.first; id <= range.last; ++id) {
            if (!listed[id]) ids.push_back(static_cast<std::uint16_t>(id));
            listed[id] = true;
        }
        at = end + 1;
    }
    *out = std::move(ids);
    return {};
}

std::string vlan_list_text(const std::vector<std::uint16_t> &vlans) {
    std::string out;
    for (std::size_t first = 0; first < vlans.size();) {
        std::size_t last = first;
        while (last + 1 < vlans.size() && vlans[last + 1] == vlans[last] + 1) ++last;
        out += (out.empty() ? "" : ",") + std::to_string(vlans[first]);
        if (last != first) out += "-" + std::to_string(vlans[last]);
        first = last + 1;
    }
    return out;
}

}  // namespace ravo::cli
