// SPDX-License-Identifier: Apache-2.0
// What a request says, taken apart by our own code: its path, its query, a cookie, a token, a JSON body. All of it
// comes from whoever reaches the port; nothing here trusts a length or a character.
#ifndef FRONT_WEB_REQUEST_TEXT_H
#define FRONT_WEB_REQUEST_TEXT_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fault.h"

namespace ravo::web {

inline constexpr std::size_t longest_uri = 1024;
inline constexpr std::size_t longest_body = 4096;

struct target {
    std::vector<std::string> path;  // segments, decoded: "/api/v1/health" is {"api", "v1", "health"}
    std::string query;              // behind "?", not decoded
};

// Takes a request's target apart ("/api/v1/clients?search=02"). Nothing for one that is too long, does not begin with
// "/", has a broken or a forbidden escape (control characters, "/", "\\"), or a segment "." or "..".
std::optional<target> read_target(std::string_view uri);

// The decoded value of a name in a query; nothing when it is not there or broken.
std::optional<std::string> query_value(std::string_view query, std::string_view name);

// The number that a query has for a name: `otherwise` without one, nothing for what is no number up to `most`.
std::optional<std::size_t> query_number(std::string_view query, std::string_view name, std::size_t otherwise,
                                        std::size_t most);

// The value of a cookie in a Cookie header, empty for none.
std::string_view cookie_value(std::string_view header, std::string_view name);

// The token of an Authorization header of the Bearer kind, empty for none.
std::string_view bearer_token(std::string_view header);

// True when both have the same bytes; takes the same time wherever they differ.
bool same_secret(std::string_view one, std::string_view other);

// A member that a body must have.
struct body_member {
    std::string_view name;
    std::size_t longest = 0;  // of a text, in bytes; 0: the member is true or false
    std::string text = {};    // read
    bool flag = false;        // read
};

// Reads a body that is a JSON object with exactly these members. The fault, if any: what is wrong.
fault read_body(std::string_view body, std::vector<body_member> *members);

// True for text that may stand in a command line as one word: letters, digits and a few marks.
bool is_plain_word(std::string_view word, std::size_t longest);

// Dotted IPv4 text in its one usual form ("192.0.2.11").
bool is_ipv4(std::string_view text);

// A hardware address: twelve hexadecimal digits, with ":", "-" and "." anywhere between them. Returns it in lower case
// with ":" between pairs; nothing for another text.
std::optional<std::string> read_mac(std::string_view text);

// The host in an authority ("localhost:8067", "[::1]:80"), without its port; empty for a broken one.
std::string_view host_of(std::string_view authority);

}  // namespace ravo::web

#endif
