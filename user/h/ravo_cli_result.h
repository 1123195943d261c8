// SPDX-License-Identifier: Apache-2.0
// What a command handler tells the user: the texts of result codes, and whether plain lines are printed at all.
#ifndef RAVO_CLI_RESULT_H
#define RAVO_CLI_RESULT_H

#include <cstdint>

struct cli;

// Tells whether plain lines are to be printed in this context: bit 2 of the view flags clear, or show_all 1.
[[nodiscard]] bool ravo_cli_prints(const struct cli *cli);

// Shows a result code to the user. Returns what the handler returns: 0 for code 0 (prints nothing), 1 for any other.
[[nodiscard]] int ravo_show_result(struct cli *cli, std::uint32_t code);

#endif
