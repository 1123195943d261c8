// SPDX-License-Identifier: Apache-2.0
// The books of messages, kept as plain lists.
#include "fake_outcome.h"

#include <cerrno>

#include "relay_access.h"

namespace fake {

std::vector<relay_outcome> outcomes;
std::vector<std::uint32_t> outcome_servers;

void reset_outcomes() {
    outcomes.clear();
    outcome_servers.clear();
}

}  // namespace fake

void outcome_record(relay_outcome outcome) {
    fake::outcomes.push_back(outcome);
    errno = EDOM;  // any service may change it
}

void outcome_server(std::uint32_t server) {
    fake::outcome_servers.push_back(server);
    errno = EDOM;
}

void relay_access_register(const relay_access *) {}
