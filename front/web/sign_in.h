// SPDX-License-Identifier: Apache-2.0
// Signing in and out.
#ifndef FRONT_WEB_SIGN_IN_H
#define FRONT_WEB_SIGN_IN_H

#include "exchange.h"

namespace ravo::web {

inline constexpr const char *session_cookie = "ravo-session";

void serve_sign_in(const exchange_ptr &x);   // POST /api/v1/session
void serve_session(const exchange_ptr &x);   // GET
void serve_sign_out(const exchange_ptr &x);  // DELETE

}  // namespace ravo::web

#endif
