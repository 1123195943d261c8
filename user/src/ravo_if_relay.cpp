// SPDX-License-Identifier: Apache-2.0
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
    std::uint8_t *message;      // is in a message_buffer
    std::uint32_t length;       // its bytes
    std::uint32_t options_len;  // of these, from the magic cookie on
    pkt_origin origin;          // where it came in
    const dhcp_notes &notes;    // of its options as it came in
    bool header_valid;          // it is known that the header was valid as it came in
    bool options_valid;         // as it came in
    bool option82_present;      // it carried option 82
    std::uint8_t *op82;         // first sub-option of that, null unless it is a circuit id
    std::uint8_t type;          // message type, 0 when option 53 did not come before option 82
};

// What a message says of its client, to choose servers by. Texts are one byte longer than their option's limit: always
// NUL-terminated.
struct identifiers {
    std::uint8_t opt61_data[RAVO_CLIENT_ID_SIZE + 1];
    char opt60_data[RAVO_VENDOR_CLASS_SIZE + 1];
    std::uint32_t opt60_found;
    std::uint32_t opt61_found;
};

constexpr identifiers unidentified{};

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

bool is_chain(const relayed &msg) {
    return isValidOptions(options_of(msg), static_cast<std::int32_t>(msg.options_len)) != 0;
}

bool options_valid(const relayed &msg) {
    if (msg.options_valid) return true;
    ravo_trace_as(procedure, ravo::level_failure, "%s (%d): Invalid options");
    outcome_record(OUTCOME_BAD_OPTIONS);
    return false;
}

// A replaced option 82 ends the chain earlier than the message; what is left of the options behind it must not be read
// as options, so where it does not happen to be a chain it becomes padding.
void pad_behind_end(relayed &msg) {
    std::uint8_t *opt = first_option_of(msg);
    while (*opt != optEND) opt = DHCP_nextOption(opt);
    std::uint8_t *stop = options_of(msg) + msg.options_len;
    if (opt + 1 < stop) std::memset(opt + 1, optPAD, static_cast<std::size_t>(stop - opt - 1));
}

// Rewrites option 82 and takes over the new length. What is valid stays so when a whole option is added before its end
// option or taken out, and then ends with that; a replaced one has to be looked at.
void fill(relayed &msg, int mode) {
    const std::uint32_t filled =
        ravo_fill_noted(msg.via, first_option_of(msg), msg.notes, mode, /*reserved=*/msg.origin.vlan_ifindex,
                        /*port=*/msg.origin.port_ifindex);
    msg.options_len = filled + static_cast<std::uint32_t>(DHCP_COOKIE_SIZE);
    msg.length = msg.options_len + static_cast<std::uint32_t>(DHCP_HEADER_SIZE);
    if (mode == RAVO_FILL_REPLACE && !is_chain(msg)) pad_behind_end(msg);
    const bool valid = mode == RAVO_FILL_REPLACE ? is_chain(msg) : first_option_of(msg)[filled - 1] == optEND;
    ravo_assert_as(procedure, valid, "isValidOptions(options, options_len)", module_path);
}

// The message is the relay's own: a client's request, or the reply to one.
verdict decide_own(relayed &msg) {
    ravo_print(ravo::level_trace, "header->giaddr == %x, my if_ip %x \n", giaddr_of(msg), msg.via->if_ip);
    set_giaddr(msg);
    if (!options_valid(msg)) return verdict::stop;
    if (msg.options_len == 0) return verdict::send;
    const std::uint8_t op = op_of(msg);
    ravo_assert_as(procedure, op == opBOOTREQUEST || op == opBOOTREPLY, "false", module_path);

    const ravo_agent &agent = ravo_db_agent_view();
    // A reply must name the port of its transaction.
    if (agent.check == 1 && op == opBOOTREPLY && ravo_option_check_reply(msg.via, msg.op82, msg.message) == 0)
        return verdict::stop;
    // A DECLINE or RELEASE is not answered: nothing would take its entry out again.
    const bool answered = msg.type != dhcpDECLINE && msg.type != dhcpRELEASE;
    if (agent.check == 1 && op == opBOOTREQUEST && agent.option_state == 1 && answered)
        ravo_db_xid_record(procedure, dhcp_xid(msg.message), msg.origin.port_ifindex);

    fill(msg, op == opBOOTREQUEST ? RAVO_FILL_ADD : RAVO_FILL_REMOVE);
    return verdict::send;
}

// The message carries another relay's address: option 82 of a request is handled by the policy.
verdict decide_foreign(relayed &msg) {
    ravo_trace_as(procedure, ravo::level_trace,
                  "%s (%d):Packet is relay from another relay agent and process packet by policy\n");
    if (!msg.option82_present || giaddr_of(msg) == 0 || op_of(msg) != opBOOTREQUEST) return verdict::send;
    switch (ravo_db_agent_view().policy) {
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
    if (!options_valid(msg)) return verdict::stop;
    if (msg.options_len == 0) return verdict::send;
    fill(msg, RAVO_FILL_REPLACE);
    return verdict::send;
}

verdict decide(relayed &msg) {
    // RFC 3046 section 2.1: a client on an untrusted circuit must not bring relay information of its own.
    if (msg.via->trusted == 0 && giaddr_of(msg) == 0 && msg.option82_present) return drop(OUTCOME_UNTRUSTED_OPTION82);
    const std::uint32_t option_state = ravo_db_agent_view().option_state;
    ravo_trace_as(procedure, ravo::level_trace, "%s (%d):agent_db.option_state %d\n", static_cast<int>(option_state));
    const std::uint32_t giaddr = giaddr_of(msg);
    if (option_state == 0) {
        if (giaddr == 0) set_giaddr(msg);
        return verdict::send;
    }
    return giaddr == 0 || giaddr == msg.via->if_ip ? decide_own(msg) : decide_foreign(msg);
}

void send_on(const relayed &msg, const identifiers &ids) {
    const std::uint8_t op = op_of(msg);
    ravo_trace_as(procedure, ravo::level_trace, "%s (%d): header->op=%d\n", op);
    if (op == opBOOTREQUEST)
        ravo_if_send_server_Unicast(msg.via, msg.message, msg.length, ids.opt61_data, ids.opt60_data, ids.opt60_found,
                                    ids.opt61_found, msg.origin);
    else if (op == opBOOTREPLY && ravo_if_has_hardware_address(procedure, msg.via))
        ravo_if_send_to_client(msg.via, msg.message, msg.message, msg.length, msg.origin);
    ravo_assert_as(procedure, op == opBOOTREQUEST || op == opBOOTREPLY, "false", module_path);
}

void decide_and_send(relayed &msg, const identifiers &ids) {
    if (decide(msg) == verdict::send) send_on(msg, ids);
}

// A message that carries option 82 and options by which servers may be chosen.
[[gnu::noinline]] void handle_identified(relayed &msg) {
    identifiers ids{};
    (void)ravo_find_option60_61(first_option_of(msg), ids.opt61_data, ids.opt60_data, &ids.opt60_found,
                                &ids.opt61_found);
    decide_and_send(msg, ids);
}

void handle(relayed &msg) {
    ravo_trace_as(procedure, ravo::level_trace, "%s (%d): Rx interface=%s\n", msg.via->name);
    if (!msg.header_valid && isValidHeader(msg.message) == 0) return;
    ravo_trace_as(procedure, ravo::level_trace, "%s (%d):header verified passed\n");
    ++msg.message[offsetof(dhcp_header, hops)];  // RFC 1542 section 4.1.1, before any decision to drop
    msg.option82_present = ravo_find_noted_agent_option(first_option_of(msg), msg.notes, &msg.op82, &msg.type) == 0;
    // deliberate: options 60 and 61 choose servers only for messages that already carry option 82.
    if (msg.option82_present && msg.notes.identified)
        handle_identified(msg);
    else
        decide_and_send(msg, unidentified);
}

relayed message_of(const iface *iface, std::uint8_t *message, std::uint32_t length, pkt_origin origin,
                   const dhcp_notes &notes, bool valid) {
    return {.via = iface,
            .message = message,
            .length = length,
            .options_len = length - static_cast<std::uint32_t>(DHCP_HEADER_SIZE),
            .origin = origin,
            .notes = notes,
            .header_valid = valid,
            .options_valid = valid,
            .option82_present = false,
            .op82 = nullptr,
            .type = 0};
}

}  // namespace

void ravo_if_handle_noted(const iface *iface, std::uint8_t *message, std::uint32_t length, pkt_origin origin,
                          const dhcp_notes &notes) {
    relayed msg = message_of(iface, message, length, origin, notes, /*valid=*/true);
    handle(msg);
}

void ravo_if_handle_pkt(const iface *iface, std::uint8_t *message, std::uint32_t length, pkt_origin origin) {
    // Also what is no valid chain is looked at, as far as the end option that comes first.
    const dhcp_notes notes = dhcp_note_options(message + DHCP_HEADER_SIZE + DHCP_COOKIE_SIZE);
    relayed msg = message_of(iface, message, length, origin, notes, /*valid=*/false);
    msg.options_valid = is_chain(msg);
    handle(msg);
}
