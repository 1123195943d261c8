// SPDX-License-Identifier: Apache-2.0
// The relay settings.
//
// One record holds every global setting. Readers take a copy of it, writers hand a changed copy back, so nobody ever
// sees half a change; each write also tells the platform's status service whether the relay runs.
#include "ravo_db.h"

#include "sysinf_lib.h"

namespace {

constexpr std::uint32_t status_protocol = 28;  // the DHCP relay's number at the status service
constexpr std::uint32_t default_hops = 4;

ravo_agent agent_db;

}  // namespace

std::uint32_t trust_all = 0;

std::uint32_t ravo_db_agent_reset() {
    agent_db = {};
    agent_db.policy = RAVO_POLICY_REPLACE;
    agent_db.hops = default_hops;
    agent_db.relay_enable = 0;
    agent_db.option_state = 0;
    agent_db.check = 1;
    ravo_db_status_push(agent_db.relay_enable);
    return RAVO_OK;
}

std::uint32_t ravo_db_agent_get(ravo_agent *out) {
    *out = agent_db;
    return RAVO_OK;
}

const ravo_agent &ravo_db_agent_view() {
    return agent_db;
}

std::uint32_t ravo_db_agent_set(const ravo_agent *in) {
    agent_db = *in;
    ravo_db_status_push(agent_db.relay_enable);
    return RAVO_OK;
}

void ravo_db_status_push(std::uint32_t relay_enable) {
    const std::uint32_t state = relay_enable == 1 ? SYSINF_STATE_ON : SYSINF_STATE_OFF;
    (void)SYSINF_LIB_Proto_Status_Set(status_protocol, state, "");  // there is nothing to do about a failure
}
