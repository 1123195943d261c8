// SPDX-License-Identifier: Apache-2.0
// JSON text, written piece by piece.
#ifndef PLATFORM_LINUX_CLI_JSON_H
#define PLATFORM_LINUX_CLI_JSON_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace ravo::cli {

// A document that is being written: one member or element a line.
struct json_writer {
    std::function<void(std::string_view piece)> sink = {};  // takes the text as it grows; empty: it is all kept
    std::string text;                                       // what no sink has taken
    int depth = 0;
    int row_depth = 0;  // depth from which on all is in one line, 0: none
    bool fresh = true;  // nothing is in the open object or array yet
};

// Opens an object "{" or an array "[", which is the member of this name; an empty name for an element of an array and
// for the document itself.
void json_open(json_writer &out, std::string_view name, char bracket);
// The same for an object or array that is in one line with all that it holds: a row of many.
void json_open_row(json_writer &out, std::string_view name, char bracket);
// Closes it with "}" or "]".
void json_close(json_writer &out, char bracket);

// Members of an object, or with an empty name elements of an array. In texts, bytes that are not ASCII are written as
// the characters of these numbers, so that the document is valid whatever they are.
void json_string(json_writer &out, std::string_view name, std::string_view value);
void json_number(json_writer &out, std::string_view name, std::int64_t value);
void json_bool(json_writer &out, std::string_view name, bool value);

}  // namespace ravo::cli

#endif
