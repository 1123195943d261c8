// SPDX-License-Identifier: Apache-2.0
// The command line of ravo-web.
#ifndef FRONT_WEB_OPTIONS_H
#define FRONT_WEB_OPTIONS_H

#include <cstdint>
#include <string>
#include <vector>

#include "accounts.h"
#include "client.h"
#include "fault.h"

namespace ravo::web {

struct web_options {
    std::string listen = "127.0.0.1:8067";
    std::string address;     // of listen
    std::uint16_t port = 0;  // of listen
    std::string management = client::default_socket;
    std::string accounts = default_accounts;
    std::string token_file;
    std::string tls_certificate;
    std::string tls_key;
    bool allow_plain = false;
    std::string set_password;  // user, empty: serve
    std::string account_role;  // USER=ROLE, empty: serve
    bool help = false;
    bool version = false;
};

// Reads the command line and judges what goes together. The fault, if any: what is wrong.
fault parse_options(const std::vector<std::string> &words, web_options *out);

// The text of --help.
const char *help_text();

}  // namespace ravo::web

#endif
