// SPDX-License-Identifier: Apache-2.0
// The UI bridge: records, row keys and table walks go to the session that the command runs in; what becomes of them
// there is the front end's business. A session that takes none of them drops them.
#include "uib.h"

#include <span>

#include "cli/session.h"

namespace {

using output_function = std::function<int(std::span<const std::uint8_t>)>;

int hand_over(const output_function &to, const void *bytes, std::size_t length) {
    if (bytes == nullptr) length = 0;
    return to ? to({static_cast<const std::uint8_t *>(bytes), length}) : 0;
}

}  // namespace

extern "C" {

int UIB_WEB_Msg_Send(struct cli *cli, const void *record, size_t length) {
    return hand_over(ravo::cli::session_of(cli).output.record, record, length);
}

int uib_snmp_key_send(struct cli *cli, const void *key, size_t key_length, ...) {
    return hand_over(ravo::cli::session_of(cli).output.row_key, key, key_length);
}

int UIB_OUT_TABLE_ENTRIES(struct cli *cli, struct uib_table *table) {
    if (ravo::cli::session_of(cli).exact)
        return table->get_exact(table->key) == 1 ? table->put_row(cli, table->key) : 0;
    while (table->get_next(table->key) == 1) {
        const int result = table->put_row(cli, table->key);
        if (result == CLI_BUFFER_FULL) return result;
    }
    return 0;
}

}  // extern "C"
