// SPDX-License-Identifier: Apache-2.0
// Asking for a password.
#ifndef FRONT_WEB_PASSWORD_PROMPT_H
#define FRONT_WEB_PASSWORD_PROMPT_H

#include <string>

namespace ravo::web {

// Asks twice on a terminal, without showing what is typed; else takes one line of standard input. Returns an empty
// string and the password, or what went wrong.
[[nodiscard]] std::string ask_password(const std::string &user, std::string *password);

}  // namespace ravo::web

#endif
