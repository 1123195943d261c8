// SPDX-License-Identifier: Apache-2.0
// What is wrong with the relay's surroundings or its settings, and what to do about it.
#ifndef PLATFORM_LINUX_COMMANDS_ADVICE_H
#define PLATFORM_LINUX_COMMANDS_ADVICE_H

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "books/server_book.h"
#include "relay_access.h"

namespace ravo::cli {

struct advice {
    std::string kind;    // a word for programs
    std::string what;    // what is wrong, with what it is wrong
    std::string remedy;  // what to do
};

// What advice is derived from.
struct advice_facts {
    relay_settings settings{};
    std::vector<relay_interface> interfaces;        // the relay's records
    std::vector<platform::server_figures> servers;  // how they answer
    std::vector<std::uint16_t> serverless;          // VLANs on which requests came for which there was no server
    std::set<std::uint32_t> own_addresses;          // of this host, network byte order
    std::set<std::uint32_t> unreachable;            // servers to which no route leads
    std::vector<std::string> guessed_ports;         // devices that got the next free number
    std::vector<std::string> waiting;               // interfaces that are not there, and for which settings wait
    std::uint64_t unknown_tags = 0;                 // messages with a tag that no interface has
    std::uint64_t lost = 0;                         // messages that came too fast
    std::int64_t now_us = 0;                        // microseconds since 1970
    bool trap = false;                              // clients' broadcasts are kept from the bridge on some port
    bool other_server = false;                      // somebody else has UDP port 67
    bool saved = true;                              // the running configuration is what is saved
    bool remembers = true;                          // there is a state folder
};

// The advice that follows from these facts, the gravest trouble first; empty when all is well.
std::vector<advice> advice_on(const advice_facts &facts);

// Collects the facts of this moment. With many interfaces others have their turns meanwhile (cli/turns.h).
advice_facts advice_gather();

// Writes a line to the log for each that was not there the last time.
void advice_report(const std::vector<advice> &all);

}  // namespace ravo::cli

#endif
