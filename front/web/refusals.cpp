// SPDX-License-Identifier: Apache-2.0
// The relay's refusals as a table: its code, the status of HTTP that comes closest, and the text that the command line
// prints, by which a refusal without a code is found too.
#include "refusals.h"

namespace ravo::web {

namespace {

constexpr int bad_address = 422;
constexpr int conflict = 409;
constexpr int not_there = 404;

// deliberate: the texts are as the command line has them, to the last blank.
constexpr refusal rows[] = {
    {302020, bad_address, "DHCP relay server ip error "},
    {302021, conflict,
     "Can not set dhcp relay config of this interface \n% please set IP address on this interface first"},
    {302022, conflict, "DHCP relay server exitsted already "},
    {302023, conflict, "DHCP relay server full "},
    {302024, not_there, "No DHCP relay server on this interface "},
    {302025, conflict, "Set the same configuration current configuration"},
};

}  // namespace

refusal refusal_with(int code) {
    for (const refusal &row : rows)
        if (row.code == code) return row;
    return {};
}

refusal refusal_of(int result, std::string_view text) {
    if (result == 0) return {0, 200, {}};
    if (const refusal known = refusal_with(result); known.code != 0) return known;
    for (const refusal &row : rows)
        if (text.starts_with("% ") && text.substr(2).starts_with(row.text)) return row;
    return {};
}

}  // namespace ravo::web
