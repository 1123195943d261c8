// SPDX-License-Identifier: Apache-2.0
// Asking for a password.
#ifndef FRONT_WEB_PASSWORD_PROMPT_H
#define FRONT_WEB_PASSWORD_PROMPT_H

#include <string>

#include "fault.h"

namespace ravo::web {

// Asks twice on a terminal, without showing what is typed; else takes one line of standard input. The
// fault, if any: what went wrong.
fault ask_password(const std::string &user, std::string *password);

}  // namespace ravo::web

#endif
