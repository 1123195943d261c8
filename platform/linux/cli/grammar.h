// SPDX-License-Identifier: Apache-2.0
// The text of a command definition, taken apart.
#ifndef PLATFORM_LINUX_CLI_GRAMMAR_H
#define PLATFORM_LINUX_CLI_GRAMMAR_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "cli/words.h"
#include "fault.h"

namespace ravo::cli {

enum class token_kind {
    keyword,
    number,   // <a-b>
    address,  // A.B.C.D
    ifname,   // IFNAME
    any,      // WORD, STATE and other words in capitals
    line,     // LINE: all that follows
};

struct token {
    token_kind kind = token_kind::keyword;
    std::string text;        // the keyword, or the form as help shows it: "<1-16>", "A.B.C.D"
    std::uint32_t low = 0;   // of a number
    std::uint32_t high = 0;  // of a number
    bool argument = false;   // it goes into the handler's argument vector
    std::string help;
};

// A part of a command: tokens that follow each other, or of which one is chosen; together they may be left out.
struct item {
    bool optional = false;
    bool choice = false;
    std::vector<token> tokens;
};

struct grammar {
    std::vector<item> items;
};

// Takes a definition's text apart. help: a text for each word in order, NULL at the end, or NULL. The fault, if any:
// what is wrong with the text.
fault compile(const char *text, const char *const *help, grammar *out);

// A place in a command: before a token of an item.
struct position {
    std::size_t item = 0;
    std::size_t token = 0;
};

// A token that may come at a place, and the place behind it.
struct step {
    const token *what = nullptr;
    position after;
};

// All tokens that may come at a place. Returns whether the command may also end there.
bool next_steps(const grammar &command, position at, std::vector<step> *out);

// How well a word fits a token, worst first: of several commands the ones with the best fit stay in the race.
enum class fit {
    none,
    any,          // any word would fit
    abbreviated,  // the beginning of a keyword
    value,        // a number, an address, an interface name
    exact,        // a whole keyword
};
fit fits(const token &what, const word &typed);

// The word as the handler gets it: keywords in full, interface names in their one form, numbers short enough for any
// buffer, everything else as typed.
std::string argument_of(const token &what, const word &typed);

// The VLAN of the interface that a word names: "vlan10", "Vlan10", "vlan010", "10", or the device that carries it; 0
// for none.
std::uint16_t vlan_of_ifname(std::string_view text);

}  // namespace ravo::cli

#endif
