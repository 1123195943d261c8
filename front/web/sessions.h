// SPDX-License-Identifier: Apache-2.0
// Who is signed in. A session is a random name that the browser keeps as a cookie, and a second one that the page must
// send with every change: a page of somebody else's can make the browser send the first, but never learns the second.
#ifndef FRONT_WEB_SESSIONS_H
#define FRONT_WEB_SESSIONS_H

#include <chrono>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "accounts.h"

namespace ravo::web {

using moment = std::chrono::steady_clock::time_point;

inline constexpr std::size_t most_sessions = 128;
inline constexpr std::size_t most_sessions_of_user = 16;
inline constexpr std::chrono::minutes idle_time{30};  // a session that is not used this long is over
inline constexpr std::chrono::hours longest_session{12};

struct session {
    std::string id;    // the cookie
    std::string csrf;  // sent with changes
    account who;       // as the accounts had it when it began
    moment begun;
    moment used;
};

struct session_table {
    std::vector<session> rows;
};

// Begins a session. When there are too many, of this user or in all, the one of these that was not used for longest
// ends.
const session &begin_session(session_table *table, const account &who, moment now);

// The session of this cookie, or null. It counts as used.
const session *find_session(session_table *table, std::string_view id, moment now);

// Ends the session of this cookie, if there is one.
void end_session(session_table *table, std::string_view id);

// Ends the sessions whose account is gone or has another password or role now, and those that are over.
void keep_sessions_of(session_table *table, const std::vector<account> &accounts, moment now);

// Failed sign-ins by address: after five in a minute an address has to wait.
inline constexpr int most_failures = 5;
inline constexpr std::chrono::seconds failure_time{60};
inline constexpr std::size_t most_addresses = 1024;

struct sign_in_guard {
    std::map<std::string, std::vector<moment>> failures;  // by address, oldest first
    std::vector<moment> checks;                           // of passwords, in the last second
};

// Seconds until this address may try again, 0: now. Counts the try: checking a password is work, so that no more than
// a few are checked a second whoever asks.
int sign_in_wait(sign_in_guard *guard, const std::string &address, moment now);
// The password was wrong: counts a failure. It was right: forgets those of the address.
void sign_in_failed(sign_in_guard *guard, const std::string &address, moment now);
void sign_in_good(sign_in_guard *guard, const std::string &address);

// 32 random bytes as hexadecimal digits.
std::string random_name();

}  // namespace ravo::web

#endif
