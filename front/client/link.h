// SPDX-License-Identifier: Apache-2.0
// A link to the daemon for programs with an event loop of their own: nothing here waits.
//
//     ravo::client::link_ptr daemon = ravo::client::link_make({.socket = path});
//     link_ask(*daemon, "show ip dhcp relay | json", [](const ravo::client::reply &r) { ... });
//     // in the loop, when link_descriptor is ready for link_wants, or at link_deadline:
//     link_attend(*daemon);
//
// Requests are answered in the order in which they were asked. The link connects when the first is asked, and again
// after a loss, not more than once a second; a request that cannot be answered ends with the reason. A daemon that does
// not answer in time is as good as gone. Callbacks are called from link_ask and link_attend and may ask again.
#ifndef FRONT_CLIENT_LINK_H
#define FRONT_CLIENT_LINK_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "client.h"

namespace ravo::client {

struct link_options {
    std::string socket = default_socket;
    int privilege = 31;
    int mode = 4;                                     // 4 privileged execution, 5 global configuration
    std::string behalf;                               // for whom the commands are, in the daemon's audit lines
    std::chrono::milliseconds patience{5000};         // for a welcome or an answer
    std::chrono::milliseconds pause{1000};            // between two tries to connect
    std::size_t longest_text = std::size_t{8} << 20;  // bytes of an answer that are kept
    std::size_t most_waiting = 256;                   // requests that may wait at a time
};

// A row of a table, or a keyed value line: the key as the daemon sent it and the text behind it.
struct keyed_line {
    std::vector<std::uint8_t> key;
    std::string text;
};

struct reply {
    bool answered = false;                // the daemon ran it; else reason says why not
    int result = 1;                       // 0 success; else what the command returned
    std::string text;                     // what it printed
    bool cut = false;                     // it printed more than is kept
    std::string tail;                     // of what is not kept, the last bytes: where a document has its sums
    std::vector<keyed_line> values = {};  // keyed value lines
    std::vector<std::vector<std::uint8_t>> records = {};   // records for the web side
    std::vector<std::vector<std::uint8_t>> row_keys = {};  // keys of table rows
    std::string reason = {};
};

using on_reply = std::function<void(reply &answer)>;

struct link;
struct link_delete {
    void operator()(link *l) const;
};
using link_ptr = std::unique_ptr<link, link_delete>;

// Makes a link, which is not connected yet.
link_ptr link_make(link_options options);

// Runs a command line. view: bits as of client.h, 0 for plain output. done is called once, unless the link ends first.
void link_ask(link &l, std::string line, on_reply done, std::uint8_t view = 0);

// The connection's descriptor, -1 without one, and what is waited for there: bits of poll(2).
int link_descriptor(const link &l);
short link_wants(const link &l);
// When link_attend wants to be called although the descriptor is silent; time_point::max() for never.
std::chrono::steady_clock::time_point link_deadline(const link &l);

// Reads, writes and tells whoever waits.
void link_attend(link &l);

// Waits until every request is answered or failed, at most this long. For programs that may wait a little.
void link_settle(link &l, std::chrono::milliseconds most);

// What the last attempt to reach the daemon came to.
struct link_state {
    bool connected = false;      // the daemon said welcome and is still there
    std::string reason;          // why not, one line
    std::string daemon_version;  // "0.1.0"; empty before the first welcome
    bool may_change = false;
    int daemon_pid = 0;  // 0: not known
};
const link_state &link_look(const link &l);

}  // namespace ravo::client

#endif
