// SPDX-License-Identifier: Apache-2.0
// Option 82 of requests, and a look at options 60 and 61.
//
// The relay writes an option 82 (RFC 3046) of fixed form: a circuit id naming VLAN, module and port where the request
// came in, and a remote id with the relaying interface's hardware address. Messages are in a message_buffer, whose
// spare room ends every walk.
#include "ravo_if_option.h"

#include <algorithm>
#include <cstring>

#include "dhcp.h"
#include "if_utl.h"
#include "port_number.h"
#include "trace.h"

namespace {

constexpr const char *module_path = "user/src/ravo_if";
constexpr const char *filling = "fillOptions";  // the procedure whose steps these are

constexpr unsigned last_vlan = 4094;

constexpr int dump_bytes = 60;  // bytes that the trace of a new option shows, from its data on

// The VLAN id of a name as VLAN interfaces bear it, "vlanN" without leading zeros, whose number needs no asking; 0 for
// any other name.
std::uint16_t vlan_of_plain_name(const char *name) {
    if (std::memcmp(name, "vlan", 4) != 0 || name[4] == '0') return 0;
    unsigned vlan = 0;
    for (const char *digit = name + 4; *digit != '\0'; ++digit) {
        if (*digit < '0' || *digit > '9') return 0;
        vlan = vlan * 10 + static_cast<unsigned>(*digit - '0');
        if (vlan > last_vlan) return 0;
    }
    return static_cast<std::uint16_t>(vlan);
}

void write_agent_option(const iface *iface, std::uint8_t *opt, std::uint32_t port_ifindex) {
    const std::uint16_t vlan = ravo_vlan_id_of(iface);
    const port_place origin = port_number_place(port_ifindex);
    const std::uint8_t head[] = {
        optAGENT,
        18,  // data: circuit id 8, remote id 10
        suboptCIRCUIT_ID,
        6,
        0,
        4,                                       // circuit id type 0 (VLAN-module-port), 4 bytes
        static_cast<std::uint8_t>(vlan & 0xFF),  // deliberate: the low byte of the VLAN id comes first
        static_cast<std::uint8_t>(vlan >> 8),    //
        origin.module,
        origin.port,  //
        suboptREMOTE_ID,
        8,
        0,
        6,  // remote id type 0 (MAC address), 6 bytes
    };
    std::memcpy(opt, head, sizeof head);
    std::memcpy(opt + sizeof head, iface->if_mac, 6);
}

void dump_option(const std::uint8_t *data) {
    if (!vex_prints(ravo::level_trace)) return;
    for (int i = 0; i < dump_bytes; ++i) {
        if (i % 10 == 0) ravo_print(ravo::level_trace, "\n");
        ravo_print(ravo::level_trace, "(%d/%d/%x))\t", i, data[i], data[i]);
    }
    ravo_print(ravo::level_trace, "\n");
}

}  // namespace

std::uint16_t ravo_vlan_id_of(const iface *iface) {
    const std::uint16_t vlan = vlan_of_plain_name(iface->name);
    return vlan != 0 ? vlan : static_cast<std::uint16_t>(if_utl_ifname_to_ifindex(iface->name) - IF_UTL_VLAN_BASE);
}

std::uint32_t addAgentOption(const iface *iface, std::uint8_t *opt, std::uint32_t len, std::uint32_t reserved,
                             std::uint32_t port) {
    (void)reserved;  // part of the signature only
    ravo_assert(std::strlen(iface->aid) <= (16 + 4) + 1, "strlen(iface->aid)<=(16+4)+1", module_path);
    if (len + 4 > RAVO_OPTIONS_LIMIT) {
        ravo_trace(ravo::level_trace, "%s (%d): return opt82 len %d\n", static_cast<int>(len));
        return len;
    }
    write_agent_option(iface, opt, port);
    ravo_trace(ravo::level_trace, "%s (%d):(index/value/hex)\n");
    dump_option(opt + 2);
    opt[RAVO_AGENT_OPTION_SIZE] = optEND;
    return len + RAVO_AGENT_OPTION_SIZE;
}

std::uint32_t removeAgentOption(std::uint8_t *relay_opt, std::uint8_t *end_opt, std::uint32_t len) {
    const auto opt_len = static_cast<std::uint32_t>(DHCP_optionSize(relay_opt));
    if (opt_len < len) {
        DHCP_eraseOption(relay_opt, end_opt);
        return len - opt_len;
    }
    ravo_trace(ravo::level_failure, "%s (%d): Failed assertion 'opt_len < len'\n");
    return len;
}

std::uint32_t replaceAgentOption(const iface *iface, std::uint8_t *relay_opt, std::uint8_t *end_opt, std::uint32_t len,
                                 std::uint32_t reserved, std::uint32_t port) {
    (void)end_opt;  // deliberate: the new option is written over the old one, what followed is cut off
    ravo_assert(relay_opt != nullptr, "relay_opt!=0", module_path);
    const auto old_len = static_cast<std::uint32_t>(DHCP_optionSize(relay_opt));
    return addAgentOption(iface, relay_opt, len - old_len, reserved, port);
}

std::uint32_t fillOptions(const iface *iface, std::uint8_t *option_ptr, int mode, std::uint32_t reserved,
                          std::uint32_t port) {
    return ravo_fill_noted(iface, option_ptr, dhcp_note_options(option_ptr), mode, reserved, port);
}

std::uint32_t ravo_fill_noted(const iface *iface, std::uint8_t *option_ptr, const dhcp_notes &notes, int mode,
                              std::uint32_t reserved, std::uint32_t port) {
    // deliberate: only an option 82 that begins with a circuit id counts; any other is an option like the rest.
    const bool present = notes.last_agent >= 0;
    std::uint8_t *relay_opt = present ? option_ptr + notes.last_agent : nullptr;
    std::uint8_t *end_opt = option_ptr + notes.end;
    ravo_assert_as(filling, static_cast<void *>(end_opt) >= option_ptr, "((void*) (end_opt))>=option_ptr", module_path);
    ravo_assert_as(filling, end_opt >= relay_opt || !present, "end_opt>=relay_opt || relay_opt==0", module_path);
    const auto len = static_cast<std::uint32_t>(end_opt - option_ptr) + 1;

    switch (mode) {
        case RAVO_FILL_NONE:
            return len;
        case RAVO_FILL_REMOVE:
            return present ? removeAgentOption(relay_opt, end_opt, len) : len;
        case RAVO_FILL_ADD:
            return present ? len : addAgentOption(iface, end_opt, len, reserved, port);
        case RAVO_FILL_REPLACE: {
            if (!present) return addAgentOption(iface, end_opt, len, reserved, port);
            const auto without = len - static_cast<std::uint32_t>(DHCP_optionSize(relay_opt));
            const std::uint32_t filled = replaceAgentOption(iface, relay_opt, end_opt, len, reserved, port);
            return filled == without ? len : filled;  // no room: the message goes on as it came
        }
        default:
            ravo_assert_as(filling, false, "false", module_path);
    }
    return len;
}

int ravo_find_agent_option(std::uint8_t *options, std::uint8_t **relay_out, std::uint8_t *type_out) {
    return ravo_find_noted_agent_option(options, dhcp_note_options(options), relay_out, type_out);
}

int ravo_find_noted_agent_option(std::uint8_t *options, const dhcp_notes &notes, std::uint8_t **relay_out,
                                 std::uint8_t *type_out) {
    if (notes.type_before_agent >= 0) *type_out = static_cast<std::uint8_t>(notes.type_before_agent);
    if (notes.agent < 0) return 1;
    std::uint8_t *data = options + notes.agent + 2;
    if (data[0] != suboptCIRCUIT_ID) return 0;
    *relay_out = data;
    ravo_trace_as("ravo_find_agent_option", ravo::level_trace, "%s (%d): found rcv pkt with 82opt [0] %d [1] %d  \n",
                  data[0], data[1]);
    return 0;
}

int ravo_find_option60_61(const std::uint8_t *options, std::uint8_t *client_id_out, char *vendor_out,
                          std::uint32_t *found60, std::uint32_t *found61) {
    bool end_met = false;
    while (!end_met) {
        const std::uint8_t *id = client_id_out;
        switch (*options) {
            case optEND:
                end_met = true;
                break;
            case optCLIENT_ID:
                std::memcpy(client_id_out, options + 2, std::min<std::size_t>(options[1], RAVO_CLIENT_ID_SIZE));
                ravo_trace(ravo::level_trace, "%s (%d): found rcv pkt with option61 %02X%02X%02X%02X%02X%02X%02X\n",
                           id[0], id[1], id[2], id[3], id[4], id[5], id[6]);
                *found61 = 1;
                break;
            case optVENDOR_CLASS:
                std::memcpy(vendor_out, options + 2, std::min<std::size_t>(options[1], RAVO_VENDOR_CLASS_SIZE));
                ravo_trace(ravo::level_trace, "%s (%d): found rcv pkt with option60 %s\n", vendor_out);
                *found60 = 1;
                break;
            default:
                break;
        }
        options = DHCP_nextOption(options);
    }
    return 0;
}
