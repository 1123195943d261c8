// SPDX-License-Identifier: Apache-2.0
// Who may sign in to the web page: a file with a line for each account, USER:ROLE:HASH. The role is admin (may change)
// or reader (may look). Hashes are crypt(3)'s; a password is never written anywhere.
#ifndef FRONT_WEB_ACCOUNTS_H
#define FRONT_WEB_ACCOUNTS_H

#include <string>
#include <string_view>
#include <vector>

#include "fault.h"

namespace ravo::web {

inline constexpr const char *default_accounts = "/etc/ravo/web-accounts";
inline constexpr std::size_t longest_user = 32;
inline constexpr std::size_t longest_password = 256;
inline constexpr std::size_t shortest_password = 8;

enum class role { reader, admin };

struct account {
    std::string user;
    web::role role = role::admin;
    std::string hash;
};

// Reads the file. The fault, if any: one line that names the file, the line and what is wrong; *out is empty
// then. A file that is not there has no accounts. One that others may read, or write, is refused.
fault read_accounts(const std::string &path, std::vector<account> *out);

// Writes the file anew, whole or not at all, for its owner and its group to read. The fault, if any: one line.
fault write_accounts(const std::string &path, const std::vector<account> &accounts);

// The account of this user, or null.
const account *find_account(const std::vector<account> &accounts, std::string_view user);

// Gives a user this password: an account that is not there yet is made, as an administrator's. The fault, if
// any: what is wrong with the name or the password.
fault set_password(std::vector<account> *accounts, std::string_view user, std::string_view password);

// Sets the role named by USER=ROLE. The fault, if any: one line.
fault set_role(std::vector<account> *accounts, std::string_view user_and_role);

// True when the password fits. The same work is done for a user that does not exist (account null), so that the time
// does not tell.
bool password_fits(const account *who, const std::string &password);

const char *role_word(role r);

}  // namespace ravo::web

#endif
