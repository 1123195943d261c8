// SPDX-License-Identifier: Apache-2.0
// Rows in a vector: there are few, and comparing all of them takes the same time whichever fits. Names are 32 bytes
// from the kernel. Failed sign-ins are kept by address as a list of moments, of which those older than a minute are
// dropped.
#include "sessions.h"

#include <sys/random.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>

#include "request_text.h"

namespace ravo::web {

namespace {

constexpr std::size_t checks_a_second = 4;

bool is_over(const session &s, moment now) {
    return now - s.used >= idle_time || now - s.begun >= longest_session;
}

void drop_least_used(session_table *table, const std::string *user) {
    auto least = table->rows.end();
    for (auto row = table->rows.begin(); row != table->rows.end(); ++row)
        if ((user == nullptr || row->who.user == *user) && (least == table->rows.end() || row->used < least->used))
            least = row;
    if (least != table->rows.end()) table->rows.erase(least);
}

std::size_t sessions_of(const session_table &table, const std::string &user) {
    return static_cast<std::size_t>(
        std::count_if(table.rows.begin(), table.rows.end(), [&](const session &s) { return s.who.user == user; }));
}

void drop_before(std::vector<moment> *times, moment limit) {
    std::erase_if(*times, [&](moment t) { return t <= limit; });
}

// Makes room for one more address: those whose failures are old go, then the one whose last failure is the oldest.
void make_room(sign_in_guard *guard, moment now) {
    for (auto row = guard->failures.begin(); row != guard->failures.end();) {
        drop_before(&row->second, now - failure_time);
        row = row->second.empty() ? guard->failures.erase(row) : std::next(row);
    }
    if (guard->failures.size() < most_addresses) return;
    guard->failures.erase(std::min_element(guard->failures.begin(), guard->failures.end(),
                                           [](auto &a, auto &b) { return a.second.back() < b.second.back(); }));
}

}  // namespace

std::string random_name() {
    std::array<std::uint8_t, 32> bytes{};
    std::size_t have = 0;
    while (have < bytes.size()) {
        const ssize_t got = getrandom(bytes.data() + have, bytes.size() - have, 0);
        if (got < 0 && errno != EINTR) std::abort();  // without chance no name would be a secret
        if (got > 0) have += static_cast<std::size_t>(got);
    }
    std::string out;
    for (const std::uint8_t byte : bytes) {
        char pair[3];
        std::snprintf(pair, sizeof pair, "%02x", byte);
        out += pair;
    }
    return out;
}

const session &begin_session(session_table *table, const account &who, moment now) {
    std::erase_if(table->rows, [&](const session &s) { return is_over(s, now); });
    if (sessions_of(*table, who.user) >= most_sessions_of_user) drop_least_used(table, &who.user);
    if (table->rows.size() >= most_sessions) drop_least_used(table, nullptr);
    table->rows.push_back({random_name(), random_name(), who, now, now});
    return table->rows.back();
}

const session *find_session(session_table *table, std::string_view id, moment now) {
    session *found = nullptr;
    for (session &s : table->rows)
        if (same_secret(s.id, id)) found = &s;
    if (found == nullptr || is_over(*found, now)) return nullptr;
    found->used = now;
    return found;
}

void end_session(session_table *table, std::string_view id) {
    std::erase_if(table->rows, [&](const session &s) { return s.id == id; });
}

void keep_sessions_of(session_table *table, const std::vector<account> &accounts, moment now) {
    std::erase_if(table->rows, [&](const session &s) {
        const account *who = find_account(accounts, s.who.user);
        return is_over(s, now) || who == nullptr || who->hash != s.who.hash || who->role != s.who.role;
    });
}

int sign_in_wait(sign_in_guard *guard, const std::string &address, moment now) {
    if (const auto row = guard->failures.find(address); row != guard->failures.end()) {
        drop_before(&row->second, now - failure_time);
        if (row->second.size() >= most_failures) {
            const auto left = row->second.front() + failure_time - now;
            return static_cast<int>(std::chrono::ceil<std::chrono::seconds>(left).count());
        }
    }
    drop_before(&guard->checks, now - std::chrono::seconds(1));
    if (guard->checks.size() >= checks_a_second) return 1;
    guard->checks.push_back(now);
    return 0;
}

void sign_in_failed(sign_in_guard *guard, const std::string &address, moment now) {
    if (!guard->failures.contains(address)) make_room(guard, now);
    guard->failures[address].push_back(now);
}

void sign_in_good(sign_in_guard *guard, const std::string &address) {
    guard->failures.erase(address);
}

}  // namespace ravo::web
