// SPDX-License-Identifier: Apache-2.0
// The servers' rows of one look are compared with what was reported before, by interface and address; the map is then
// made anew from the rows, so that servers that are gone are forgotten.
#include "notices.h"

namespace ravo::snmp {

void look_at_servers(notices *n, const picture &p,
                     const std::function<void(const server_row &row, bool silent)> &report) {
    std::map<std::pair<std::uint32_t, std::uint32_t>, bool> now;
    for (const server_row &row : p.servers) {
        const std::pair key(row.ifindex, row.address);
        const bool silent = row.silent_seconds > 0;
        const auto before = n->silent.find(key);
        const bool was = before != n->silent.end() && before->second;
        if (silent != was) report(row, silent);
        now[key] = silent;
    }
    n->silent = std::move(now);
}

}  // namespace ravo::snmp
