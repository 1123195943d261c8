// SPDX-License-Identifier: Apache-2.0
// The platform's own show commands as JSON; the relay's are in relay_json.h.
//
// Members keep their names and meanings; more may be added. What is not known is left out. docs/json.md lists them all.
#ifndef PLATFORM_LINUX_COMMANDS_BOOKS_JSON_H
#define PLATFORM_LINUX_COMMANDS_BOOKS_JSON_H

#include <string>

#include "books/books.h"
#include "cli.h"
#include "cli/json.h"

namespace ravo::cli {

// One message, as a document in one line.
std::string message_json_line(const platform::book_entry &entry);

// Documents, each for the commands whose arguments it takes.
int statistics_json(struct cli *cli, int argc, char **argv, json_writer &out);
int statistics_of_vlan_json(struct cli *cli, int argc, char **argv, json_writer &out);
int statistics_of_port_json(struct cli *cli, int argc, char **argv, json_writer &out);
int clients_json(struct cli *cli, int argc, char **argv, json_writer &out);
int client_json(struct cli *cli, int argc, char **argv, json_writer &out);

}  // namespace ravo::cli

#endif
