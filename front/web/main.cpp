// SPDX-License-Identifier: Apache-2.0
// ravo-web: the web page, the JSON interface and the metrics of the relay. It talks to the daemon through its
// management socket, as the shell does, and to nothing else.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "accounts.h"
#include "options.h"
#include "password_prompt.h"
#include "server.h"
#include "streams.h"

namespace {

constexpr int exit_good = 0;
constexpr int exit_failed = 1;
constexpr int exit_usage = 2;

// --set-password and --account-role: changes the accounts' file.
int change_accounts(const ravo::web::web_options &options) {
    std::vector<ravo::web::account> accounts;
    ravo::fault wrong = ravo::web::read_accounts(options.accounts, &accounts);
    if (!wrong && !options.set_password.empty()) {
        std::string password;
        wrong = ravo::web::ask_password(options.set_password, &password);
        if (!wrong) wrong = ravo::web::set_password(&accounts, options.set_password, password);
        explicit_bzero(password.data(), password.size());
    }
    if (!wrong && !options.account_role.empty()) wrong = ravo::web::set_role(&accounts, options.account_role);
    if (!wrong) wrong = ravo::web::write_accounts(options.accounts, accounts);
    if (!wrong) return exit_good;
    std::fprintf(stderr, "ravo-web: %s\n", wrong.text.c_str());
    return exit_failed;
}

}  // namespace

int main(int argc, char **argv) {
    ravo::client::fill_standard_streams();
    ravo::web::web_options options;
    const ravo::fault wrong = ravo::web::parse_options({argv + (argc > 0 ? 1 : 0), argv + argc}, &options);
    if (wrong) {
        std::fprintf(stderr, "ravo-web: %s; see ravo-web --help\n", wrong.text.c_str());
        return exit_usage;
    }
    if (options.help || options.version) {
        std::fputs(options.help ? ravo::web::help_text() : "ravo-web " RAVO_VERSION "\n", stdout);
        return std::fflush(stdout) == 0 ? exit_good : exit_failed;
    }
    if (!options.set_password.empty() || !options.account_role.empty()) return change_accounts(options);
    return ravo::web::serve(options);
}
