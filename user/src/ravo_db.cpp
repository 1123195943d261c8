// The relay settings and the texts of result codes.
//
// One record holds every global setting. Readers take a copy of it, writers hand a changed copy back, so nobody ever
// sees half a change; each write also tells the platform's status service whether the relay runs.
#include "ravo_db.h"

#include <algorithm>
#include <array>

#include "cli.h"
#include "sysinf_lib.h"

namespace {

constexpr std::uint32_t status_protocol = 28;  // the DHCP relay's number at the status service
constexpr std::uint32_t default_hops = 4;

ravo_agent agent_db;

struct result_text {
    std::uint32_t code;
    const char *text;
};

// deliberate: blanks at the end, "exitsted" and "dound" are what users and their scripts know.
constexpr std::array<result_text, 11> result_texts = {{
    {RAVO_ERR_NO_IF, "No dhcp relay if existed "},
    {RAVO_ERR_NO_IP,
     "Can not set dhcp relay config of this interface \n% please set IP address on this interface first"},
    {RAVO_ERR_SERVER_NOT_FOUND, "DHCP relay server not found "},
    {RAVO_ERR_SERVER_IP, "DHCP relay server ip error "},
    {RAVO_ERR_SERVER_EXISTS, "DHCP relay server exitsted already "},
    {RAVO_ERR_SERVER_FULL, "DHCP relay server full "},
    {RAVO_ERR_NO_SERVER, "No DHCP relay server on this interface "},
    {RAVO_ERR_IF_NOT_FOUND, "Dhcp relay interface not dound "},
    {RAVO_ERR_NO_MEMORY, "Memory not enough "},
    {RAVO_ERR_SAME_CONFIG, "Set the same configuration current configuration"},
    {RAVO_ERR_SOCKET, "Socket fail"},
}};

}  // namespace

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

std::uint32_t ravo_db_agent_set(const ravo_agent *in) {
    agent_db = *in;
    ravo_db_status_push(agent_db.relay_enable);
    return RAVO_OK;
}

void ravo_db_status_push(std::uint32_t relay_enable) {
    const std::uint32_t state = relay_enable == 1 ? SYSINF_STATE_ON : SYSINF_STATE_OFF;
    (void)SYSINF_LIB_Proto_Status_Set(status_protocol, state, "");  // there is nothing to do about a failure
}

bool ravo_cli_prints(const struct cli *cli) {
    return (cli->view_flags & CLI_VIEW_SETTINGS) == 0 || cli->show_all == 1;
}

int ravo_show_result(struct cli *cli, std::uint32_t code) {
    if (code == RAVO_OK) return 0;
    if (!ravo_cli_prints(cli)) return 1;
    const auto found = std::find_if(result_texts.begin(), result_texts.end(),
                                    [code](const result_text &entry) { return entry.code == code; });
    if (found != result_texts.end())
        cli->print(cli->print_handle, "%% %s\n", found->text);
    else
        cli->print(cli->print_handle, "RAVO Err Unhandle errno %d \n", static_cast<int>(code));
    return 1;
}
