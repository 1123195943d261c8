// SPDX-License-Identifier: Apache-2.0
// ravo-snmp: the relay for SNMP managers. A sub-agent: the system's master agent has the port, the communities and the
// users, and asks this program for the relay's objects.
#include <cstdio>
#include <string>
#include <vector>

#include "agent.h"
#include "options.h"
#include "streams.h"

namespace {

constexpr int exit_good = 0;
constexpr int exit_failed = 1;
constexpr int exit_usage = 2;

}  // namespace

int main(int argc, char **argv) {
    ravo::client::fill_standard_streams();
    ravo::snmp::snmp_options options;
    const ravo::fault wrong = ravo::snmp::parse_options({argv + (argc > 0 ? 1 : 0), argv + argc}, &options);
    if (wrong) {
        std::fprintf(stderr, "ravo-snmp: %s; see ravo-snmp --help\n", wrong.text.c_str());
        return exit_usage;
    }
    if (options.help || options.version) {
        std::fputs(options.help ? ravo::snmp::help_text() : "ravo-snmp " RAVO_VERSION "\n", stdout);
        return std::fflush(stdout) == 0 ? exit_good : exit_failed;
    }
    return ravo::snmp::serve(options);
}
