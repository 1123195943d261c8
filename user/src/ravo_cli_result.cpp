// SPDX-License-Identifier: Apache-2.0
// The texts of result codes. Every handler ends by showing its code here, so that one operation is reported in the same
// words whichever command asked for it.
#include "ravo_cli_result.h"

#include <algorithm>
#include <array>

#include "cli.h"
#include "ravo_db.h"

namespace {

struct result_text {
    std::uint32_t code;
    const char *text;
};

// deliberate: blanks at the end, "exitsted" and "dound" are what users and their scripts know.
constexpr auto result_texts = std::to_array<result_text>({
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
});

}  // namespace

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
