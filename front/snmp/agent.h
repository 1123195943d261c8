// SPDX-License-Identifier: Apache-2.0
// The sub-agent: registers the module's identifiers with the master agent and answers for them.
#ifndef FRONT_SNMP_AGENT_H
#define FRONT_SNMP_AGENT_H

#include "options.h"

namespace ravo::snmp {

// Serves until SIGTERM or SIGINT. Returns the exit status; what is wrong goes to standard error.
int serve(const snmp_options &options);

}  // namespace ravo::snmp

#endif
