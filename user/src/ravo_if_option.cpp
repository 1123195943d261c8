// Option 82 of requests, and a look at options 60 and 61.
//
// The relay writes an option 82 (RFC 3046) of fixed form: a circuit id naming VLAN, module and port where the request
// came in, and a remote id with the relaying interface's hardware address. Messages stand in a message_buffer, whose
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

constexpr int dump_bytes = 60;  // bytes that the trace of a new option shows, from its data on

// deliberate: only an option 82 that begins with a circuit id counts; any other is an option like the rest.
bool is_agent_option(const std::uint8_t *option) {
    return *option == optAGENT && option[2] == RAVO_CIRCUIT_ID;
}

void write_agent_option(const iface *iface, std::uint8_t *opt, std::uint32_t port_ifindex) {
    const std::uint16_t vlan = ravo_vlan_id_of(iface);
    const port_place origin = port_number_place(port_ifindex);
    const std::uint8_t head[] = {
        optAGENT,
        18,  // data: circuit id 8, remote id 10
        RAVO_CIRCUIT_ID,
        6,
        0,
        4,                                       // circuit id type 0 (VLAN-module-port), 4 bytes
        static_cast<std::uint8_t>(vlan & 0xFF),  // deliberate: the VLAN id stands low byte first
        static_cast<std::uint8_t>(vlan >> 8),    //
        origin.module,
        origin.port,  //
        RAVO_REMOTE_ID,
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
    return static_cast<std::uint16_t>(if_utl_ifname_to_ifindex(iface->name) - IF_UTL_VLAN_BASE);
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
    std::uint8_t *relay_opt = nullptr;
    std::uint8_t *end_opt = nullptr;
    for (std::uint8_t *opt = option_ptr; end_opt == nullptr; opt = DHCP_nextOption(opt)) {
        if (is_agent_option(opt)) relay_opt = opt;
        if (*opt == optEND) end_opt = opt;
    }
    ravo_assert(static_cast<void *>(end_opt) >= option_ptr, "((void*) (end_opt))>=option_ptr", module_path);
    ravo_assert(end_opt >= relay_opt || relay_opt == nullptr, "end_opt>=relay_opt || relay_opt==0", module_path);
    const auto len = static_cast<std::uint32_t>(end_opt - option_ptr) + 1;

    switch (mode) {
        case RAVO_FILL_NONE:
            return len;
        case RAVO_FILL_REMOVE:
            return relay_opt != nullptr ? removeAgentOption(relay_opt, end_opt, len) : len;
        case RAVO_FILL_ADD:
            return relay_opt != nullptr ? len : addAgentOption(iface, end_opt, len, reserved, port);
        case RAVO_FILL_REPLACE: {
            if (relay_opt == nullptr) return addAgentOption(iface, end_opt, len, reserved, port);
            const auto without = len - static_cast<std::uint32_t>(DHCP_optionSize(relay_opt));
            const std::uint32_t filled = replaceAgentOption(iface, relay_opt, end_opt, len, reserved, port);
            return filled == without ? len : filled;  // no room: the message goes on as it came
        }
        default:
            ravo_assert(false, "false", module_path);
    }
    return len;
}

int ravo_find_agent_option(std::uint8_t *options, std::uint8_t **relay_out, std::uint8_t *type_out) {
    bool end_met = false;
    while (!end_met) {
        if (*options == optAGENT) {
            if (options[2] != RAVO_CIRCUIT_ID) return 0;
            *relay_out = options + 2;
            ravo_trace(ravo::level_trace, "%s (%d): found rcv pkt with 82opt [0] %d [1] %d  \n", options[2],
                       options[3]);
            return 0;
        }
        if (*options == optEND) end_met = true;
        if (*options == optMESSAGE_TYPE) *type_out = options[2];
        options = DHCP_nextOption(options);
    }
    return 1;
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
