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
#include "port_number.h"
#include "ravo_db_xid.h"
#include "ravo_if_client.h"
#include "ravo_if_option.h"
#include "trace.h"

namespace {

constexpr const char *module_path = "user/src/ravo_if";
constexpr const char *procedure = "ravo_local_relay_handle_pkt";

void record_transaction(const std::uint8_t *message, const pkt_origin &origin) {
    const port_place port = port_number_place(origin.port_ifindex);
    xid_entry entry{};
    std::memcpy(&entry.xid, message + offsetof(dhcp_header, xid), sizeof entry.xid);
    entry.module = port.module;
    entry.port = port.port;
    if (ravo_db_xid_update(&entry) != 0)
        ravo_print(ravo::level_trace, "%s (%d): Update Xid DB with xid=%X,modid=%d,port num=%d\n", procedure, __LINE__,
                   entry.xid, port.module, port.port);
    else
        ravo_print(ravo::level_failure, "%s (%d): Failed to update Xid DB with xid=%X,modid=%d,port num=%d\n",
                   procedure, __LINE__, entry.xid, port.module, port.port);
}

// Puts a VLAN id into the list or takes it out. Returns false when the list has no room for it.
bool apply_vlan(ravo_agent &agent, std::uint16_t vlan, bool add) {
    const auto begin = std::begin(agent.local_relay_vlan);
    const auto end = std::end(agent.local_relay_vlan);
    const auto slot = std::find(begin, end, vlan);
    if (slot != end) {
        if (add) return true;
        ravo_print(ravo::level_trace, "%s %d vlanid_cfg_req->VlanIdAddFlag \n", "RAVO_Set_VLANID_Req_do", __LINE__);
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
    auto options_len = static_cast<std::int32_t>(length - DHCP_HEADER_SIZE);
    ravo_agent agent;
    ravo_db_agent_get(&agent);
    std::uint8_t *op82 = nullptr;
    std::uint8_t type = 0;
    const bool option82_present = ravo_find_agent_option(first_option, &op82, &type) == 0;

    const dhcp_header header = dhcp_load_header(message);
    if (header.giaddr != 0) return;  // it has passed a relay already
    if (option82_present) return;    // relay information of others is never touched here
    if (isValidOptions(options, options_len) == 0) {
        ravo_trace(ravo::level_failure, "%s (%d): Invalid options");
        return;
    }
    if (options_len == 0) return;
    const bool request = header.op == opBOOTREQUEST;
    ravo_assert(request || header.op == opBOOTREPLY, "false", module_path);

    // deliberate: with the check on every reply ends here, as it carries no option 82.
    if (agent.check == 1 && !request && ravo_option_check_reply(iface, op82, message) == 0) return;
    const bool answered = type != dhcpDECLINE && type != dhcpRELEASE;
    if (agent.check == 1 && request && answered) record_transaction(message, origin);

    options_len = static_cast<std::int32_t>(fillOptions(iface, first_option, request ? RAVO_FILL_ADD : RAVO_FILL_REMOVE,
                                                        /*reserved=*/origin.vlan_ifindex,
                                                        /*port=*/origin.port_ifindex) +
                                            DHCP_COOKIE_SIZE);
    ravo_assert(isValidOptions(options, options_len) != 0, "isValidOptions(options, options_len)", module_path);
    // A record made by configuration before its interface came up has no hardware address to send from.
    if (request && iface->if_maclen != 6) {
        ravo_trace(ravo::level_failure, "%s (%d): interface %s has no hardware address, drop\n", iface->name);
        outcome_record(OUTCOME_NO_HARDWARE_ADDRESS);
        return;
    }
    // deliberate: a reply that gets here, with the check off, breaks the sender's assertion.
    ravo_if_send_local_relay(iface, message, message,
                             static_cast<std::uint32_t>(options_len) + static_cast<std::uint32_t>(DHCP_HEADER_SIZE),
                             origin);
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
