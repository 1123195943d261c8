// SPDX-License-Identifier: Apache-2.0
// The client side of the management socket, for the programs in front of the daemon.
//
//     ravo::client::connection_ptr daemon;
//     if (const ravo::fault wrong = ravo::client::open({.socket = path}, &daemon)) ...;  // wrong.text: one line
//     std::string text;
//     const auto answer = ravo::client::run(*daemon, {.line = "show ip dhcp relay"},
//                                           {.text = [&](std::string_view piece) { text += piece; }});
//     if (answer.outcome == ravo::client::outcome::answered && answer.result == 0) ...;
//
// One request at a time; the functions wait for its answer and read it as fast as it comes, so handlers should put it
// aside and not wait for anything themselves: the daemon drops a client that leaves too much unread.
#ifndef FRONT_CLIENT_CLIENT_H
#define FRONT_CLIENT_CLIENT_H

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "fault.h"

namespace ravo::client {

inline constexpr const char *default_socket = "/run/ravo/ravod.sock";

// Views of a command's output: bits. A person is shown the terminal view; 0 prints the lines of every view.
inline constexpr std::uint8_t view_terminal = 1;
inline constexpr std::uint8_t view_settings = 2;
inline constexpr std::uint8_t view_keyed = 4;

struct connection;
struct connection_delete {
    void operator()(connection *c) const;
};
using connection_ptr = std::unique_ptr<connection, connection_delete>;

struct open_options {
    std::string socket = default_socket;
    int privilege = 31;        // most that is wanted, 1 to 31
    int mode = 4;              // mode to start in: 4 privileged execution, 5 global configuration
    int timeout_seconds = 10;  // for connecting and the daemon's welcome
};

// Connects and opens a session. The fault, which begins with the socket's path, says why the daemon cannot be reached
// or refuses; *opened is NULL then.
fault open(const open_options &options, connection_ptr *opened);

// What the daemon says of the session; up to date after each request.
struct session_state {
    int privilege = 0;        // granted
    bool may_change = false;  // false: show commands only
    int mode = 0;
    std::string prompt;          // text that goes with the mode: "#", "(config)#"
    int page = -1;               // lines of a page, 0: no pages; -1: not set
    bool closed = false;         // a command ended the session
    std::string daemon_version;  // "0.1.0"
};
const session_state &state(const connection &c);

// Where an answer goes, in the order in which the daemon sent it. What is empty is not wanted.
struct handlers {
    std::function<void(std::string_view text)> text = {};  // printed text, in pieces
    std::function<void(std::span<const std::uint8_t> key, std::string_view text)> value = {};  // a keyed value line
    std::function<void(std::span<const std::uint8_t> record)> record = {};  // a record for the web side
    std::function<void(std::span<const std::uint8_t> key)> row_key = {};    // key of the row that follows
    std::function<void(std::string_view line)> monitor = {};                // a line of the log
    // The command goes on: what it prints comes as it happens, until it is cancelled or ends by itself.
    std::function<void()> streaming = {};
    // Asked now and then: true ends a command that goes on, whose answer then comes; of any other command it gives up
    // and ends the connection.
    std::function<bool()> cancelled = {};
};

enum class outcome {
    answered,   // result holds the command's
    lost,       // the connection broke or the daemon refused; reason says why
    cancelled,  // the handler of that name said so
};

struct answer {
    client::outcome outcome = outcome::lost;
    int result = 1;        // 0 success; else what the command returned
    std::string question;  // not empty: nothing was done; ask the person, then run again with confirmed
    std::string reason;    // of outcome lost: one line
};

struct command {
    std::string line;
    std::uint8_t view = view_terminal;
    bool show_all = false;     // plain lines in the settings view too
    bool interactive = false;  // a person is there to be asked
    bool confirmed = false;    // the person said yes
};

// Runs one command line.
answer run(connection &c, const command &what, const handlers &to);

// A word that may come next, and its help text.
struct help_row {
    std::string word;
    std::string text;
};

// Help for a half-typed line: what can stand in place of the word it ends in.
answer help(connection &c, std::string_view line, std::vector<help_row> *rows, const handlers &to = {});

// Whole words that continue the last, half-typed word of the line.
answer complete(connection &c, std::string_view line, std::vector<std::string> *words, const handlers &to = {});

// The connection's descriptor, readable when the daemon has sent something or gone; -1 once the connection is lost.
int descriptor(const connection &c);

// Handles what has come without a request (lines of the log), without waiting. The fault, which begins with the
// socket's path, says why the connection is lost.
fault attend(connection &c, const handlers &to);

}  // namespace ravo::client

#endif
