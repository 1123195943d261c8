// SPDX-License-Identifier: Apache-2.0
// The codes and texts with which the relay refuses a change by a front end.
#ifndef FRONT_WEB_REFUSALS_H
#define FRONT_WEB_REFUSALS_H

#include <string>
#include <string_view>

namespace ravo::web {

struct refusal {
    int code = 0;    // 302020 to 302025; 0: none of them
    int status = 0;  // of the HTTP answer
    std::string_view text;
};

// What a command came to. result: its status; text: what it printed. Code 0 with status 200: it was done.
refusal refusal_of(int result, std::string_view text);

// The refusal with this code.
refusal refusal_with(int code);

}  // namespace ravo::web

#endif
