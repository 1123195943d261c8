// The relay's decisions about one message: whether it is relayed at all, what happens to its relay address, its hop
// count and its option 82, whether its transaction is remembered, and whether it goes to servers or to its client (RFC
// 1542 section 4.1, RFC 3046 section 2.1).
#include "ravo_if_relay.h"

#include <cstddef>
#include <cstring>

#include "dhcp.h"
#include "outcome.h"
#include "ravo_db.h"
#include "ravo_db_xid.h"
#include "ravo_if_check.h"
#include "ravo_if_client.h"
#include "ravo_if_forward.h"
#include "ravo_if_option.h"
#include "trace.h"

namespace {

constexpr const char *module_path = "user/src/ravo_if";
constexpr const char *procedure = "ravo_if_handle_pkt";  // whose steps these are, as traces and assertions have it

enum class verdict { send, stop };

// The verdict on a message that is dropped.
verdict drop(relay_outcome outcome) {
    outcome_record(outcome);
    return verdict::stop;
}

// One message on its way through the decisions.
struct relayed {
    const iface *via;           // the interface it came in on
    std::uint8_t *message;      // stands in a message_buffer
    std::uint32_t length;       // its bytes
    std::uint32_t options_len;  // of these, from the magic cookie on
    pkt_origin origin;          // where it came in
    ravo_agent agent;           // the settings it is judged by
    bool option82_present;      // it carried option 82
    std::uint8_t *op82;         // first sub-option of that, null unless it is a circuit id
    std::uint8_t type;          // message type, 0 when option 53 did not come before option 82
};

std::uint8_t *options_of(const relayed &msg) {
    return msg.message + DHCP_HEADER_SIZE;
}
std::uint8_t *first_option_of(const relayed &msg) {
    return options_of(msg) + DHCP_COOKIE_SIZE;
}
std::uint8_t op_of(const relayed &msg) {
    return dhcp_op(msg.message);
}
std::uint32_t giaddr_of(const relayed &msg) {
    return dhcp_giaddr(msg.message);
}

void set_giaddr(const relayed &msg) {
    std::memcpy(msg.message + offsetof(dhcp_header, giaddr), &msg.via->if_ip, sizeof msg.via->if_ip);
}

bool options_valid(const relayed &msg) {
    return isValidOptions(options_of(msg), static_cast<std::int32_t>(msg.options_len)) != 0;
}

// A replaced option 82 ends the chain earlier than the message; what is left of the options behind it must not be read
// as options, so where it does not happen to be a chain it becomes padding.
void pad_behind_end(relayed &msg) {
    std::uint8_t *opt = first_option_of(msg);
    while (*opt != optEND) opt = DHCP_nextOption(opt);
    std::uint8_t *stop = options_of(msg) + msg.options_len;
    if (opt + 1 < stop) std::memset(opt + 1, optPAD, static_cast<std::size_t>(stop - opt - 1));
}

// Rewrites option 82 and takes over the new length.
void fill(relayed &msg, int mode) {
    msg.options_len = fillOptions(msg.via, first_option_of(msg), mode, /*reserved=*/msg.origin.vlan_ifindex,
                                  /*port=*/msg.origin.port_ifindex) +
                      static_cast<std::uint32_t>(DHCP_COOKIE_SIZE);
    msg.length = msg.options_len + static_cast<std::uint32_t>(DHCP_HEADER_SIZE);
    if (mode == RAVO_FILL_REPLACE && !options_valid(msg)) pad_behind_end(msg);
}

// The message is the relay's own: a client's request, or the reply to one.
verdict decide_own(relayed &msg) {
    ravo_print(ravo::level_trace, "header->giaddr == %x, my if_ip %x \n", giaddr_of(msg), msg.via->if_ip);
    set_giaddr(msg);
    if (!options_valid(msg)) {
        ravo_trace_as(procedure, ravo::level_failure, "%s (%d): Invalid options");
        return drop(OUTCOME_BAD_OPTIONS);
    }
    if (msg.options_len == 0) return verdict::send;
    const std::uint8_t op = op_of(msg);
    ravo_assert_as(procedure, op == opBOOTREQUEST || op == opBOOTREPLY, "false", module_path);

    // A reply must name the port of its transaction.
    if (msg.agent.check == 1 && op == opBOOTREPLY && ravo_option_check_reply(msg.via, msg.op82, msg.message) == 0)
        return verdict::stop;
    // A DECLINE or RELEASE is not answered: nothing would take its entry out again.
    const bool answered = msg.type != dhcpDECLINE && msg.type != dhcpRELEASE;
    if (msg.agent.check == 1 && op == opBOOTREQUEST && msg.agent.option_state == 1 && answered)
        ravo_db_xid_record(procedure, dhcp_xid(msg.message), msg.origin.port_ifindex);

    fill(msg, op == opBOOTREQUEST ? RAVO_FILL_ADD : RAVO_FILL_REMOVE);
    ravo_assert_as(procedure, options_valid(msg), "isValidOptions(options, options_len)", module_path);
    return verdict::send;
}

// The message carries another relay's address: option 82 of a request is handled by the policy.
verdict decide_foreign(relayed &msg) {
    ravo_trace_as(procedure, ravo::level_trace,
                  "%s (%d):Packet is relay from another relay agent and process packet by policy\n");
    if (!msg.option82_present || giaddr_of(msg) == 0 || op_of(msg) != opBOOTREQUEST) return verdict::send;
    switch (msg.agent.policy) {
        case RAVO_POLICY_DROP:
            ravo_trace_as(procedure, ravo::level_trace, "%s (%d): drop  the packet by policy\n");
            return drop(OUTCOME_POLICY_DROP);
        case RAVO_POLICY_KEEP:
            ravo_trace_as(procedure, ravo::level_trace, "%s (%d): do nothing policy keep \n");
            return verdict::send;
        case RAVO_POLICY_REPLACE:
            break;
        default:
            return verdict::send;
    }
    ravo_trace_as(procedure, ravo::level_trace, "%s (%d): replace the packet option by policy\n");
    if (!options_valid(msg)) {
        ravo_trace_as(procedure, ravo::level_failure, "%s (%d): Invalid options");
        return drop(OUTCOME_BAD_OPTIONS);
    }
    if (msg.options_len == 0) return verdict::send;
    fill(msg, RAVO_FILL_REPLACE);
    ravo_assert_as(procedure, options_valid(msg), "isValidOptions(options, options_len)", module_path);
    return verdict::send;
}

verdict decide(relayed &msg) {
    // RFC 3046 section 2.1: a client on an untrusted circuit must not bring relay information of its own.
    if (msg.via->trusted == 0 && giaddr_of(msg) == 0 && msg.option82_present) return drop(OUTCOME_UNTRUSTED_OPTION82);
    ravo_trace_as(procedure, ravo::level_trace, "%s (%d):agent_db.option_state %d\n",
                  static_cast<int>(msg.agent.option_state));
    const std::uint32_t giaddr = giaddr_of(msg);
    if (msg.agent.option_state == 0) {
        if (giaddr == 0) set_giaddr(msg);
        return verdict::send;
    }
    return giaddr == 0 || giaddr == msg.via->if_ip ? decide_own(msg) : decide_foreign(msg);
}

}  // namespace

void ravo_if_handle_pkt(const iface *iface, std::uint8_t *message, std::uint32_t length, pkt_origin origin) {
    ravo_trace(ravo::level_trace, "%s (%d): Rx interface=%s\n", iface->name);
    std::uint8_t opt61_data[RAVO_CLIENT_ID_SIZE + 1] = {};
    char opt60_data[RAVO_VENDOR_CLASS_SIZE + 1] = {};  // one byte longer than the option's limit: always NUL-terminated
    std::uint32_t opt60_found = 0;
    std::uint32_t opt61_found = 0;
    relayed msg;
    msg.via = iface;
    msg.message = message;
    msg.length = length;
    msg.options_len = length - static_cast<std::uint32_t>(DHCP_HEADER_SIZE);
    msg.origin = origin;
    msg.option82_present = false;
    msg.op82 = nullptr;
    msg.type = 0;
    ravo_db_agent_get(&msg.agent);

    if (isValidHeader(message) == 0) return;
    ravo_trace(ravo::level_trace, "%s (%d):header verified passed\n");
    ++message[offsetof(dhcp_header, hops)];  // RFC 1542 section 4.1.1, before any decision to drop

    // deliberate: options 60 and 61 choose servers only for messages that already carry option 82.
    if (ravo_find_agent_option(first_option_of(msg), &msg.op82, &msg.type) == 0) {
        msg.option82_present = true;
        ravo_find_option60_61(first_option_of(msg), opt61_data, opt60_data, &opt60_found, &opt61_found);
    }
    if (decide(msg) == verdict::stop) return;

    const std::uint8_t op = op_of(msg);
    ravo_trace(ravo::level_trace, "%s (%d): header->op=%d\n", op);
    if (op == opBOOTREQUEST) {
        ravo_if_send_server_Unicast(iface, message, msg.length, opt61_data, opt60_data, opt60_found, opt61_found,
                                    origin);
    } else if (op == opBOOTREPLY) {
        if (ravo_if_has_hardware_address(__func__, iface))
            ravo_if_send_to_client(iface, message, message, msg.length, origin);
    } else {
        ravo_assert(false, "false", module_path);
    }
}
