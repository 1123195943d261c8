// SPDX-License-Identifier: Apache-2.0
// The relay's show commands as JSON ("| json"), built from its data. docs/json.md describes the documents.
#ifndef PLATFORM_LINUX_COMMANDS_RELAY_JSON_H
#define PLATFORM_LINUX_COMMANDS_RELAY_JSON_H

#include "cli.h"
#include "cli/json.h"

namespace ravo::cli {

// Members keep their names and meanings; more may be added. Without a relay each prints a line and returns 1.
int relay_json(struct cli *cli, int argc, char **argv, json_writer &out);
int relay_detail_json(struct cli *cli, int argc, char **argv, json_writer &out);
int relay_trusted_json(struct cli *cli, int argc, char **argv, json_writer &out);
int relay_options_json(struct cli *cli, int argc, char **argv, json_writer &out);
int relay_transactions_json(struct cli *cli, int argc, char **argv, json_writer &out);

}  // namespace ravo::cli

#endif
