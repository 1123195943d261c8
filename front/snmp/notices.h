// SPDX-License-Identifier: Apache-2.0
// Notices servers that fall silent, and that are back.
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

// Compares the servers with what was last reported of them, and calls tell for each that has changed. A server that is
// seen first while it is silent is reported; one that is not there any more is forgotten.
void look_at_servers(notices *n, const picture &p, const std::function<void(const server_row &row, bool silent)> &tell);

}  // namespace ravo::snmp

#endif
