// SPDX-License-Identifier: Apache-2.0
// The command line of ravo-snmp.
#ifndef FRONT_SNMP_OPTIONS_H
#define FRONT_SNMP_OPTIONS_H

#include <string>
#include <vector>

#include "client.h"
#include "fault.h"
#include "objects.h"

namespace ravo::snmp {

struct snmp_options {
    std::string management = client::default_socket;
    std::string agentx;  // empty: where net-snmp's master agent listens by default
    std::string base_oid;
    oid_text base;  // of base_oid, or the module's own
    bool help = false;
    bool version = false;
};

// Reads the command line. The fault, if any: what is wrong.
fault parse_options(const std::vector<std::string> &words, snmp_options *out);

// Reads "1.3.6.1.4.1.99" (a leading dot is taken too): 2 to 64 numbers, of which the first is at most 2 and the second
// below 40. Returns false for what is no identifier.
bool read_oid(std::string_view text, oid_text *out);

// The text of --help.
const char *help_text();

}  // namespace ravo::snmp

#endif
