// SPDX-License-Identifier: Apache-2.0
// The relay's section of the running configuration: the commands that lead from the default settings to the present
// ones, followed by a block for every interface record. Servers chosen by option 60 or 61 and the trust-all flag are
// not part of it.
#include <cstddef>
#include <cstdio>
#include <memory>

#include "addr_text.h"
#include "memmgr.h"
#include "ravo_cli.h"
#include "ravo_cli_result.h"
#include "ravo_db.h"
#include "ravo_db_if.h"

namespace {

constexpr std::uint32_t default_hops = 4;
constexpr std::size_t vlan_text_size = 77852;  // more than 4096 ids of five digits with their commas

// The section as it is being written.
struct section {
    struct cli *cli;
    bool prints;
    int count;  // sections written
};

// Prints one line of the section; a macro, so that the compiler sees format and arguments together.
#define write_line(out, ...)                                                      \
    do {                                                                          \
        if ((out).prints) (out).cli->print((out).cli->print_handle, __VA_ARGS__); \
    } while (0)

void write_separator(section &out) {
    ++out.count;
    write_line(out, "!\n");
}

void write_global_line(section &out, const char *line) {
    write_line(out, "%s", line);
    write_separator(out);
}

void write_policy(section &out, std::uint32_t policy) {
    if (policy == RAVO_POLICY_REPLACE) return;
    if (policy == RAVO_POLICY_DROP) write_line(out, "ip dhcp relay information policy drop\n");
    if (policy == RAVO_POLICY_KEEP) write_line(out, "ip dhcp relay information policy keep\n");
    write_separator(out);
}

// Writes the VLAN ids into text, in slot order, joined by commas.
void join_vlans(const ravo_agent &agent, char *text) {
    std::size_t used = 0;
    for (const std::uint16_t vlan : agent.local_relay_vlan) {
        if (vlan == 0) continue;
        used += static_cast<std::size_t>(
            std::snprintf(text + used, vlan_text_size - used, used == 0 ? "%d" : ",%d", static_cast<int>(vlan)));
    }
}

// Returns false when memory is used up.
bool write_local_relay(section &out, const ravo_agent &agent) {
    const std::unique_ptr<char, decltype(&memmgr_free)> text(static_cast<char *>(mfh_calloc(1, vlan_text_size)),
                                                             memmgr_free);
    if (text == nullptr) return false;
    join_vlans(agent, text.get());
    if (*text == '\0') return true;
    write_line(out, "ip dhcp local-relay vlan %s\n", text.get());
    write_separator(out);
    return true;
}

// Returns false when memory is used up.
bool write_settings(section &out) {
    ravo_agent agent{};
    ravo_db_agent_get(&agent);
    if (agent.relay_enable == 1) write_global_line(out, "ip dhcp relay\n");
    if (agent.option_state == 1) write_global_line(out, "ip dhcp relay information option\n");
    if (agent.check != 1) write_global_line(out, "no ip dhcp relay information check\n");
    write_policy(out, agent.policy);
    if (agent.hops != default_hops) {
        write_line(out, "ip dhcp relay hops %d\n", static_cast<int>(agent.hops));
        write_separator(out);
    }
    return agent.local_relay_enable != 1 || write_local_relay(out, agent);
}

void write_interface(section &out, const iface &record) {
    write_separator(out);
    write_line(out, "interface %s\n", record.name);
    if (record.trusted == 1) write_line(out, " ip dhcp relay information trusted\n");
    for (const std::uint32_t server : record.server_db)
        if (server != 0) write_line(out, " ip dhcp relay address %s\n", ravo_addr_text(server).text);
}

}  // namespace

int ravo_config_write(struct cli *cli) {
    section out{cli, ravo_cli_prints(cli), 0};
    // deliberate: without memory for the list the output ends here and counts as nothing.
    if (!write_settings(out)) return 0;
    for (const iface &record : ravo_db_if_all()) write_interface(out, record);
    return out.count + 1;
}
