// SPDX-License-Identifier: Apache-2.0
// The master agent: whether it can be reached, in words.
#ifndef FRONT_SNMP_MASTER_H
#define FRONT_SNMP_MASTER_H

#include <string>

namespace ravo::snmp {

// Why the master agent cannot be reached at an address (a socket's path, "tcp:HOST:PORT", or empty for net-snmp's own),
// and what to do about it: one line, without an end.
[[nodiscard]] std::string no_master_text(const std::string &address);

}  // namespace ravo::snmp

#endif
