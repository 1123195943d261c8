// Validation of received messages (RFC 2131 section 2). A message is looked at here before anything is decided: its
// fixed header, then its option area, whose chain must reach exactly to the end of the message.
#include "dhcp.h"

#include <netinet/in.h>

#include "outcome.h"
#include "ravo_db.h"

namespace {

constexpr std::uint16_t flag_broadcast = 0x8000;  // RFC 2131 section 2, figure 2
constexpr int hops_ceiling = 16;                  // RFC 1542 section 4.1.1

// What is wrong with a header; no reason when nothing is.
struct fault {
    const char *reason;
    relay_outcome outcome;
};

// Only the first fault is named.
fault header_fault(const dhcp_header &header) {
    ravo_agent agent;
    ravo_db_agent_get(&agent);
    if (header.flags != 0 && header.flags != htons(flag_broadcast)) return {"Invalid flags field", OUTCOME_BAD_FLAGS};
    const int hops = header.hops;
    if (hops > hops_ceiling || hops > static_cast<int>(agent.hops)) return {"Looping detected", OUTCOME_HOP_LIMIT};
    if (header.op == 0 || header.op > opBOOTREPLY) return {"Unknown operation", OUTCOME_UNKNOWN_OPERATION};
    return {nullptr, OUTCOME_NONE};
}

}  // namespace

int isValidHeader(const std::uint8_t *message) {
    const auto [reason, outcome] = header_fault(dhcp_load_header(message));
    if (reason == nullptr) return 1;
    outcome_record(outcome);
    ravo_trace(ravo::level_trace, "%s (%d): reason=%s\n", reason);
    return 0;
}

int isValidOptions(const std::uint8_t *options, std::int32_t options_len) {
    if (options_len == 0) return 1;
    if (options_len < 5 || std::memcmp(options, DHCP_COOKIE, DHCP_COOKIE_SIZE) != 0) return 0;
    const auto end = static_cast<std::size_t>(options_len);
    std::size_t at = DHCP_COOKIE_SIZE;
    bool end_met = false;
    // The walk goes on behind the end option: what follows it must be a chain too.
    while (at < end) {
        const std::uint8_t code = options[at];
        if (code == optEND) end_met = true;
        const bool single = code == optPAD || code == optEND;
        if (!single && at + 1 == end) return 0;  // the length byte would stand outside
        at += DHCP_optionSize(options + at);
    }
    return end_met && at == end ? 1 : 0;
}

int DHCP_getMessageType(const std::uint8_t *options, std::uint8_t *type_out) {
    bool end_met = false;
    while (!end_met) {
        if (*options == optMESSAGE_TYPE) {
            *type_out = options[2];
            return 0;
        }
        end_met = *options == optEND;
        options = DHCP_nextOption(options);
    }
    return 1;
}
