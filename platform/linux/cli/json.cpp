// SPDX-License-Identifier: Apache-2.0
// A writer that only needs to know how deep it is and whether a comma is due.
#include "cli/json.h"

#include <cstdio>

namespace ravo::cli {

namespace {

std::string quoted(std::string_view value) {
    std::string out = "\"";
    for (const char c : value) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (byte < 0x20 || byte >= 0x7F) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(byte));
            out += escaped;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

void indent(json_writer &out) {
    out.text.append(2 * static_cast<std::size_t>(out.depth), ' ');
}

constexpr std::size_t piece_size = 4096;

void hand_over(json_writer &out) {
    if (!out.sink) return;
    out.sink(out.text);
    out.text.clear();
}

bool is_in_row(const json_writer &out) {
    return out.row_depth > 0 && out.depth >= out.row_depth;
}

void begin(json_writer &out, std::string_view name) {
    if (out.text.size() >= piece_size) hand_over(out);
    const bool in_row = is_in_row(out);
    if (out.depth > 0 && !out.fresh) out.text += in_row ? ", " : ",";
    if (out.depth > 0 && !in_row) out.text += "\n";
    out.fresh = false;
    if (!in_row) indent(out);
    if (!name.empty()) out.text += quoted(name) + ": ";
}

}  // namespace

void json_open(json_writer &out, std::string_view name, char bracket) {
    begin(out, name);
    out.text += bracket;
    ++out.depth;
    out.fresh = true;
}

void json_open_row(json_writer &out, std::string_view name, char bracket) {
    json_open(out, name, bracket);
    if (out.row_depth == 0) out.row_depth = out.depth;
}

void json_close(json_writer &out, char bracket) {
    const bool in_row = is_in_row(out);
    --out.depth;
    if (out.depth < out.row_depth) out.row_depth = 0;
    if (!out.fresh && !in_row) {
        out.text += "\n";
        indent(out);
    }
    out.text += bracket;
    out.fresh = false;
    if (out.depth > 0) return;
    out.text += "\n";
    hand_over(out);
}

void json_string(json_writer &out, std::string_view name, std::string_view value) {
    begin(out, name);
    out.text += quoted(value);
}

void json_number(json_writer &out, std::string_view name, std::int64_t value) {
    begin(out, name);
    out.text += std::to_string(value);
}

void json_bool(json_writer &out, std::string_view name, bool value) {
    begin(out, name);
    out.text += value ? "true" : "false";
}

}  // namespace ravo::cli
