// SPDX-License-Identifier: Apache-2.0
// A table of sets, each a few entries, found by a hash with a secret: whoever chooses transaction ids cannot choose the
// set they fall into. In a full set a port overwrites its own oldest entry first, so that a flood costs the one who
// floods.
#include "channel/guard_transactions.h"

#include <sys/random.h>

#include <algorithm>

namespace ravo::platform {
namespace {

constexpr unsigned set_bits = 14;
constexpr std::uint64_t spread = 0x9E3779B97F4A7C15;

// What is lost first when a set is full: an empty or ended entry, then the oldest of the same port, then the oldest.
template <typename entry>
bool goes_before(const entry &a, const entry &b, std::uint32_t port, std::int64_t now_s) {
    const bool a_ended = a.until_s <= now_s, b_ended = b.until_s <= now_s;
    if (a_ended != b_ended) return a_ended;
    const bool a_own = a.owner.port == port, b_own = b.owner.port == port;
    return a_own != b_own ? a_own : a.until_s < b.until_s;
}

}  // namespace

void open_transactions::use(bool on) {
    if (on == !sets_.empty()) return;
    sets_.clear();
    sets_.shrink_to_fit();
    if (!on) return;
    // Without a secret the table works as well, for all who do not mean harm.
    if (::getrandom(&secret_, sizeof secret_, GRND_NONBLOCK) < 0) secret_ = spread;
    sets_.resize(std::size_t{1} << set_bits);
}

open_transactions::entry_set &open_transactions::set_of(std::uint32_t xid) {
    std::uint64_t hash = (xid ^ secret_) * spread;
    hash = (hash ^ hash >> 32 ^ secret_ >> 17) * spread;
    return sets_[hash >> (64 - set_bits)];
}

open_transactions::entry *open_transactions::find(std::uint32_t xid, std::int64_t now_s) {
    entry_set &set = set_of(xid);
    const auto at =
        std::find_if(set.begin(), set.end(), [=](const entry &e) { return e.until_s > now_s && e.xid == xid; });
    return at == set.end() ? nullptr : &*at;
}

open_transactions::entry &open_transactions::place_for(std::uint32_t xid, std::uint32_t port, std::int64_t now_s) {
    entry_set &set = set_of(xid);
    return *std::min_element(set.begin(), set.end(),
                             [&](const entry &a, const entry &b) { return goes_before(a, b, port, now_s); });
}

bool open_transactions::open(std::uint32_t xid, const transaction_owner &owner, std::int64_t now_s) {
    entry *place = find(xid, now_s);
    if (place != nullptr) {
        const bool same = place->any_client ? place->owner.port == owner.port : place->owner == owner;
        if (!same) return false;
    } else {
        place = &place_for(xid, owner.port, now_s);
    }
    *place = {.xid = xid, .owner = owner, .until_s = now_s + life_s};
    return true;
}

void open_transactions::take_over(std::uint32_t xid, std::uint32_t port, std::int64_t seconds, std::int64_t now_s) {
    if (sets_.empty() || find(xid, now_s) != nullptr) return;
    place_for(xid, port, now_s) = {
        .xid = xid, .owner = {.port = port}, .until_s = now_s + std::min(seconds, life_s), .any_client = true};
}

void open_transactions::close(std::uint32_t xid) {
    if (sets_.empty()) return;
    for (entry &e : set_of(xid))
        if (e.xid == xid) e = {};
}

}  // namespace ravo::platform
