// SPDX-License-Identifier: Apache-2.0
// Validation of received messages (RFC 2131 section 2). A message is looked at here before anything is decided: its
// fixed header, then its option area, whose chain must reach exactly to the end of the message.
#include "dhcp.h"

#include <netinet/in.h>

#include <array>
#include <limits>

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
fault header_fault(const std::uint8_t *message) {
    const std::uint16_t flags = dhcp_flags(message);
    if (flags != 0 && flags != htons(flag_broadcast)) return {"Invalid flags field", OUTCOME_BAD_FLAGS};
    const int hops = message[offsetof(dhcp_header, hops)];
    const int limit = static_cast<int>(ravo_db_agent_view().hops);
    if (hops > hops_ceiling || hops > limit) return {"Looping detected", OUTCOME_HOP_LIMIT};
    const std::uint8_t op = dhcp_op(message);
    if (op == 0 || op > opBOOTREPLY) return {"Unknown operation", OUTCOME_UNKNOWN_OPERATION};
    return {nullptr, OUTCOME_NONE};
}

constexpr dhcp_notes nothing_noted = {-1, -1, -1, -1, -1, false};

// A walk along a chain of options that goes no further than its limit.
struct chain {
    const std::uint8_t *options;
    std::size_t at;
    std::size_t limit;
};

// Goes past an option that is longer than one byte. Returns false when its length byte would be outside.
inline bool step(chain *walk) {
    if (walk->at + 1 == walk->limit) return false;
    walk->at += walk->options[walk->at + 1] + std::size_t{2};
    return true;
}

// Goes past padding, many bytes at a time.
inline void skip_padding(chain *walk) {
    std::uint64_t word = 0;
    for (; walk->at + sizeof word <= walk->limit; walk->at += sizeof word) {
        std::memcpy(&word, walk->options + walk->at, sizeof word);
        if (word != 0) break;
    }
    while (walk->at < walk->limit && walk->options[walk->at] == optPAD) ++walk->at;
}

// Notes one of the options that later steps ask for, whose first three bytes are all inside.
void note(const chain &walk, dhcp_notes *notes) {
    const std::uint8_t *option = walk.options + walk.at;
    switch (*option) {
        case optMESSAGE_TYPE:
            if (notes->type < 0) notes->type = option[2];
            if (notes->agent < 0) notes->type_before_agent = option[2];
            break;
        case optAGENT:
            if (notes->agent < 0) notes->agent = static_cast<std::int32_t>(walk.at);
            if (option[2] == suboptCIRCUIT_ID) notes->last_agent = static_cast<std::int32_t>(walk.at);
            break;
        default:  // option 60 or 61
            notes->identified = true;
            break;
    }
}

// Codes at which the walk does something else than go past an option.
constexpr auto noticed = [] {
    std::array<bool, 256> codes{};
    for (const std::uint8_t code : {optPAD, optEND, optMESSAGE_TYPE, optVENDOR_CLASS, optCLIENT_ID, optAGENT})
        codes[code] = true;
    return codes;
}();

// Goes through the end option. Returns false when the limit comes first. The walk is a copy, which nothing that is
// noted can change: the processor keeps it at hand.
bool walk_to_end(chain *from, dhcp_notes *notes) {
    chain walk = *from;
    // An option that is longer than one byte has its length byte inside.
    while (walk.at + 1 < walk.limit) {
        const std::uint8_t code = walk.options[walk.at];
        if (noticed[code]) {
            if (code == optEND) break;
            if (code == optPAD) {
                ++walk.at;
                continue;
            }
            if (walk.at + 2 < walk.limit) note(walk, notes);
        }
        walk.at += walk.options[walk.at + 1] + std::size_t{2};
    }
    if (walk.at >= walk.limit || walk.options[walk.at] != optEND) return false;
    notes->end = static_cast<std::int32_t>(walk.at);
    from->at = walk.at + 1;
    return true;
}

// Tells whether what is left is a chain that ends with the limit; most often it is padding alone.
bool is_chain_to_limit(chain walk) {
    for (skip_padding(&walk); walk.at < walk.limit; skip_padding(&walk)) {
        if (walk.options[walk.at] == optEND)
            ++walk.at;
        else if (!step(&walk))
            return false;
    }
    return walk.at == walk.limit;
}

}  // namespace

int isValidHeader(const std::uint8_t *message) {
    const auto [reason, outcome] = header_fault(message);
    if (reason == nullptr) return 1;
    outcome_record(outcome);
    ravo_trace(ravo::level_trace, "%s (%d): reason=%s\n", reason);
    return 0;
}

int dhcp_note_valid_options(const std::uint8_t *options, std::int32_t options_len, dhcp_notes *notes) {
    *notes = nothing_noted;
    if (options_len == 0) return 1;
    if (options_len < 5 || std::memcmp(options, DHCP_COOKIE, DHCP_COOKIE_SIZE) != 0) return 0;
    chain walk{options + DHCP_COOKIE_SIZE, 0, static_cast<std::size_t>(options_len) - DHCP_COOKIE_SIZE};
    // The walk goes on behind the end option: what follows it must be a chain too.
    return walk_to_end(&walk, notes) && is_chain_to_limit(walk) ? 1 : 0;
}

int isValidOptions(const std::uint8_t *options, std::int32_t options_len) {
    dhcp_notes notes;
    return dhcp_note_valid_options(options, options_len, &notes);
}

dhcp_notes dhcp_note_options(const std::uint8_t *first_option) {
    dhcp_notes notes = nothing_noted;
    chain walk{first_option, 0, std::numeric_limits<std::size_t>::max()};
    (void)walk_to_end(&walk, &notes);
    return notes;
}

int DHCP_getMessageType(const std::uint8_t *options, std::uint8_t *type_out) {
    const dhcp_notes notes = dhcp_note_options(options);
    if (notes.type < 0) return 1;
    *type_out = static_cast<std::uint8_t>(notes.type);
    return 0;
}
