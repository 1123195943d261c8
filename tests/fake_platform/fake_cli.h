// SPDX-License-Identifier: Apache-2.0
// Command sessions, and what the daemon installs.
#ifndef FAKE_CLI_H
#define FAKE_CLI_H

#include <cstdint>
#include <string>
#include <vector>

#include "cli.h"
#include "fake_text.h"

namespace fake {

// Where a piece of output went.
enum class target {
    plain,     // print
    terminal,  // view_print with the ordinary handle
    buffer,    // view_print with the keyed-output buffer
    row,       // uib_snmp_key_send: the key is the row's
    late,      // view_print after the buffer was full
    wrong      // a handle that belongs to neither
};

struct output {
    target where;
    bytes key;
    std::string text;

    bool operator==(const output &) const = default;
};

// A session with its context. It prints nothing of its own.
class session {
  public:
    struct cli context {};
    std::vector<output> outputs;     // in order
    std::vector<bytes> web_records;  // records handed to the web side
    int keyed_room = -1;             // keyed lines the buffer takes, -1: any number
    bool full = false;               // the buffer answered that it is full
    bool exact_access = false;       // a table walk begins with the row of the key itself

    // A context for plain output, or with view_print and these view flags.
    session();
    static session with_view(std::uint32_t view_flags);

    session(const session &other);
    session &operator=(const session &other);

    // The texts of all output, joined.
    std::string text() const;

    // The texts that went to one target, joined.
    std::string text(target where) const;

    // Calls a handler with the variable words of its command. Returns its result.
    int run(cli_handler handler, const std::vector<std::string> &words = {});

    void forget();

  private:
    void attach();
};

// What was installed, in order: "config 135", "reset", "range", "default 34", "gen 5 2 0 interface IFNAME" (mode,
// privilege, flags, text).
extern std::vector<std::string> installs;
extern std::vector<cli_element *> installed_elements;
extern cli_config_writer installed_writer;
extern cli_reset installed_reset;

// The name of which the last cli_get_ifmode was asked.
extern std::string ifmode_asked;

// The command tree that the fake platform hands out.
struct cli_globals *cli_globals_of_platform();

void reset_cli();

}  // namespace fake

#endif
