// SPDX-License-Identifier: Apache-2.0
// What is in the file is written by this program alone, and read by it after it died in the middle of something: every
// number is judged before it is used. An entry's checksum is taken away first and written last.
#include "osal/kept_transactions.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "base/clock.h"
#include "base/mapped_file.h"
#include "port_number.h"

namespace ravo::platform {

namespace {

constexpr std::uint64_t magic = 0x7261766F'78696431;  // with the form's number at its end
constexpr std::uint32_t longest = 3600;               // seconds

struct entry {
    std::uint32_t check;  // 0: the place is free
    std::uint32_t number;
    std::uint32_t xid;
    std::uint32_t port;
    std::uint32_t seconds;
    std::uint32_t unused;
    std::uint64_t since;
};
static_assert(sizeof(entry) == 32);

struct table {
    std::uint64_t magic;
    std::uint64_t unused[3];
    std::array<entry, kept_transactions_places> entries;
};

mapping room;
const kept_transaction *in_hand = nullptr;

table *the_table() {
    return static_cast<table *>(room.get());
}

std::uint32_t checksum(const entry &e) {
    std::uint64_t sum = magic;
    for (const std::uint64_t word :
         {std::uint64_t{e.number} << 32 | e.xid, std::uint64_t{e.port} << 32 | e.seconds, e.since}) {
        sum = (sum ^ word) * 0x9E3779B97F4A7C15U;
        sum ^= sum >> 29;
    }
    const auto folded = static_cast<std::uint32_t>(sum ^ sum >> 32);
    return folded == 0 ? 1 : folded;
}

void set_check(entry &e, std::uint32_t check) {
    __atomic_store_n(&e.check, check, __ATOMIC_RELEASE);
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
}

entry &place_of(std::uint32_t number) {
    return the_table()->entries[number % kept_transactions_places];
}

bool is_good(const entry &e, std::uint64_t now) {
    if (e.check == 0 || e.check != checksum(e)) return false;
    if (e.port != 0 && port_number_is_port(e.port) == 0) return false;
    if (e.seconds == 0 || e.seconds > longest || e.since > now) return false;
    return now - e.since < std::uint64_t{e.seconds} * 1000;
}

std::vector<kept_transaction> take_out(table &t) {
    std::vector<kept_transaction> found;
    const std::uint64_t now = clock_coarse_ms();
    for (const entry &e : t.entries)
        if (is_good(e, now)) found.push_back({.xid = e.xid, .port = e.port, .seconds = e.seconds, .since = e.since});
    std::stable_sort(found.begin(), found.end(), [](const kept_transaction &one, const kept_transaction &other) {
        return one.since < other.since;
    });
    return found;
}

// Why what is there is not taken over. Where there is nothing, nothing is wrong.
fault read_table(const std::string &path, std::vector<kept_transaction> *found) {
    table &t = *the_table();
    const bool is_new = t.magic == 0;
    if (is_new || t.magic == magic) {
        *found = take_out(t);
        for (entry &e : t.entries)
            if (e.check != 0) e.check = 0;  // pages that nobody writes stay as they are
        t.magic = magic;
        return {};
    }
    std::memset(room.get(), 0, sizeof(table));
    t.magic = magic;
    return {path + ": is no table of transactions of this version; it begins anew"};
}

}  // namespace

fault kept_transactions_open(const std::string &path, std::vector<kept_transaction> *found) {
    kept_transactions_close();
    found->clear();
    if (const fault unmapped = map_own_file(path, sizeof(table), &room))
        return {path + ": open transactions do not outlast the daemon: " + unmapped.text};
    fault wrong = read_table(path, found);
    room.rest();
    return wrong;
}

void kept_transactions_close() {
    room = mapping();
}

void kept_transactions_put(std::uint32_t number, const kept_transaction &what) {
    if (!room) return;
    entry &e = place_of(number);
    set_check(e, 0);
    e.number = number;
    e.xid = what.xid;
    e.port = what.port;
    e.seconds = what.seconds;
    e.since = what.since;
    set_check(e, checksum(e));
}

void kept_transactions_drop(std::uint32_t number) {
    if (!room) return;
    entry &e = place_of(number);
    if (e.number == number) set_check(e, 0);
}

std::size_t kept_transactions_restore(const std::vector<kept_transaction> &found,
                                      const std::function<bool(const kept_transaction &)> &take) {
    std::size_t taken = 0;
    for (const kept_transaction &each : found) {
        in_hand = &each;
        if (take(each)) ++taken;
    }
    in_hand = nullptr;
    return taken;
}

const kept_transaction *kept_transaction_in_hand() {
    return in_hand;
}

}  // namespace ravo::platform
