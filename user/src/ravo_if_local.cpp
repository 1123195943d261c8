// SPDX-License-Identifier: Apache-2.0
// Local relay: a request from an interface that has no server of its own is stamped with option 82 (RFC 3046) and
// broadcast again out of the same interface, for the switch to carry to the server's VLAN. Also the two operations that
// configure it.
#include "ravo_if_local.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iterator>

#include "dhcp.h"
#include "outcome.h"
#include "ravo_db_xid.h"
#include "ravo_if_check.h"
#include "ravo_if_client.h"
#include "ravo_if_option.h"
#include "trace.h"

namespace {

constexpr const char *module_path = "user/src/ravo_if";

// Puts a VLAN id into the list or takes it out. Returns false when the list has no room for it.
bool apply_vlan(ravo_agent &agent, std::uint16_t vlan, bool add) {
    const auto begin = std::begin(agent.local_relay_vlan);
    const auto end = std::end(agent.local_relay_vlan);
    const auto slot = std::find(begin, end, vlan);
    if (slot != end) {
        if (add) return true;
        ravo_trace_as("RAVO_Set_VLANID_Req_do", ravo::level_trace, "%s %d vlanid_cfg_req->VlanIdAddFlag \n");
        *slot = 0;
        return true;
    }
    if (!add) return true;
    const auto empty = std::find(begin, end, 0);
    if (empty == end) return false;
    *empty = vlan;
    return true;
}

}  // namespace

void ravo_local_relay_handle_pkt(const iface *iface, std::uint8_t *message, std::uint32_t length, pkt_origin origin) {
    std::uint8_t *options = message + DHCP_HEADER_SIZE;
    std::uint8_t *first_option = options + DHCP_COOKIE_SIZE;
    const auto options_len = static_cast<std::int32_t>(length - DHCP_HEADER_SIZE);
    const ravo_agent &agent = ravo_db_agent_view();
    std::uint8_t *op82 = nullptr;
    std::uint8_t type = 0;
    const bool option82_present = ravo_find_agent_option(first_option, &op82, &type) == 0;

    if (dhcp_giaddr(message) != 0) return;  // it has passed a relay already
    if (option82_present) return;           // relay information of others is never touched here
    if (isValidOptions(options, options_len) == 0) {
        ravo_trace(ravo::level_failure, "%s (%d): Invalid options");
        return;
    }
    if (options_len == 0) return;
    const std::uint8_t op = dhcp_op(message);
    ravo_assert(op == opBOOTREQUEST || op == opBOOTREPLY, "false", module_path);

    // deliberate: with the check on every reply ends here, as it carries no option 82.
    if (agent.check == 1 && op == opBOOTREPLY && ravo_option_check_reply(iface, op82, message) == 0) return;
    const bool answered = type != dhcpDECLINE && type != dhcpRELEASE;
    if (agent.check == 1 && op == opBOOTREQUEST && answered)
        ravo_db_xid_record(__func__, dhcp_xid(message), origin.port_ifindex);

    const std::uint32_t filled =
        fillOptions(iface, first_option, op == opBOOTREQUEST ? RAVO_FILL_ADD : RAVO_FILL_REMOVE,
                    /*reserved=*/origin.vlan_ifindex, /*port=*/origin.port_ifindex) +
        static_cast<std::uint32_t>(DHCP_COOKIE_SIZE);
    ravo_assert(isValidOptions(options, static_cast<std::int32_t>(filled)) != 0, "isValidOptions(options, options_len)",
                module_path);
    if (op == opBOOTREQUEST && !ravo_if_has_hardware_address(__func__, iface)) return;
    // deliberate: a reply that gets here, with the check off, breaks the sender's assertion.
    ravo_if_send_local_relay(iface, message, message, filled + static_cast<std::uint32_t>(DHCP_HEADER_SIZE), origin);
}

int RAVO_Set_VLANID_Req_do(const vlanid_cfg_req *request) {
    if (request == nullptr) return 0;
    ravo_agent agent;
    ravo_db_agent_get(&agent);
    const bool add = (request->VlanIdAddFlag & 1) != 0;
    for (const std::uint16_t vlan : request->vlan)
        if (vlan != 0 && !apply_vlan(agent, vlan, add)) return 0;  // no room: nothing of the request is kept
    ravo_db_agent_set(&agent);
    return 1;
}

int RAVO_Set_VLANID_Req(const void *raw) {
    if (raw == nullptr) return 0;
    vlanid_cfg_req request;
    std::memcpy(&request, raw, sizeof request);
    return RAVO_Set_VLANID_Req_do(&request) != 0 ? 1 : 0;
}

int RAVO_Enable_Dhcp_LocalRelay(iface *record) {
    record->local_relay_state = 1;
    ravo_trace(ravo::level_trace, "%s %d name:%s  if_idx:%d \n", record->name, static_cast<int>(record->ifindex));
    if (record->ifindex == 0) return 0;
    ravo_trace(ravo::level_trace, "%s %d ret:%d \n", 0);
    return 0;
}
