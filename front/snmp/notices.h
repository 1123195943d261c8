// SPDX-License-Identifier: Apache-2.0
// Finds out which servers have fallen silent, and which answer again.
#ifndef FRONT_SNMP_NOTICES_H
#define FRONT_SNMP_NOTICES_H

#include <cstdint>
#include <functional>
#include <map>
#include <utility>

#include "picture.h"

namespace ravo::snmp {

struct notices {
    std::map<std::pair<std::uint32_t, std::uint32_t>, bool> silent;  // by interface and address: as reported last
};

// Compares the servers with what was last reported of them, and calls report for each that has changed. A server that
// is silent when it is seen first is reported; one that is not there any more is forgotten.
void look_at_servers(notices *n, const picture &p,
                     const std::function<void(const server_row &row, bool silent)> &report);

}  // namespace ravo::snmp

#endif
