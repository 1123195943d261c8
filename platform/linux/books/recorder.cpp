// SPDX-License-Identifier: Apache-2.0
// Each message is in a slot, and each slot in two lists: of all messages by age, and of those of its port. Which
// port has most is known without counting: a message in and another one out change two numbers by one, so whoever had
// most still has about most; a look at one other port with each message finds out when that is not so any more.
#include "books/recorder.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <new>

#include "base/port_rows.h"

namespace ravo::platform {

namespace {

constexpr std::size_t default_size = 4096;
constexpr std::size_t most_ports = 4096;  // with a share of their own; others have one together
constexpr std::uint32_t ends = 0;         // the slot that closes the list of all into a ring

struct slot {
    book_entry entry;
    std::uint32_t newer = ends, older = ends;  // of all
    std::uint32_t port_newer = 0;              // of the same port; of its newest it means nothing
};

// The messages of a port; without any, newest and oldest mean nothing.
struct share {
    std::uint32_t held = 0;
    std::uint32_t newest = 0, oldest = 0;
};

std::size_t size = default_size;
std::unique_ptr<slot[]> slots = std::make_unique<slot[]>(default_size + 1);
std::uint32_t filled = 0;  // slots that hold a message: those from 1 on
port_rows rows;
std::array<share, most_ports> shares;
std::uint16_t most = 0;       // the row that has most, or nearly
std::uint16_t looked_at = 0;  // the row that was last compared with it

constexpr std::size_t forgotten_at_once = 4096;

void look_for_most(std::uint16_t changed) {
    looked_at = static_cast<std::uint16_t>(looked_at + 1U < rows.rows ? looked_at + 1U : 0U);
    if (shares[changed].held > shares[most].held) most = changed;
    if (shares[looked_at].held > shares[most].held) most = looked_at;
}

// Takes the oldest message of a port out. Returns its slot.
std::uint32_t take_oldest(slot *all, share &of) {
    const std::uint32_t number = of.oldest;
    const slot &taken = all[number];
    of.oldest = taken.port_newer;
    --of.held;
    all[taken.newer].older = taken.older;
    all[taken.older].newer = taken.newer;
    return number;
}

// A slot for a new message of a port.
std::uint32_t find_slot(slot *all, share &of) {
    if (filled < size) return ++filled;
    share &largest = shares[most];
    return take_oldest(all, of.held >= largest.held ? of : largest);
}

void link(slot *all, std::uint32_t number, share &of) {
    const std::uint32_t before = all[ends].older;
    all[number].newer = ends;
    all[number].older = before;
    all[before].newer = number;
    all[ends].older = number;
    (of.held == 0 ? of.oldest : all[of.newest].port_newer) = number;
    of.newest = number;
    ++of.held;
}

}  // namespace

bool recorder_set_size(std::size_t messages) {
    try {
        slots = std::make_unique<slot[]>(messages + 1);
        size = messages;
    } catch (const std::bad_alloc &) {
        return false;
    }
    recorder_clear();
    return true;
}

void recorder_clear() {
    filled = 0;
    slots[ends].newer = slots[ends].older = ends;
    shares.fill({});
}

std::size_t recorder_forget(const std::array<std::uint8_t, 6> &client, std::size_t first) {
    const std::size_t end = std::min<std::size_t>(filled, first + forgotten_at_once);
    for (std::size_t i = first + 1; i <= end; ++i)  // the slot stays where it is, until it is the oldest
        if (slots[i].entry.client == client) slots[i].entry = {};
    return end < filled ? end : 0;
}

std::size_t recorder_size() {
    return size;
}

void recorder_keep(const book_entry &entry) {
    const std::uint16_t row = port_row(rows, entry.port_ifindex, most_ports);
    share &of = shares[row];
    slot *const all = slots.get();
    const std::uint32_t number = find_slot(all, of);
    all[number].entry = entry;
    link(all, number, of);
    look_for_most(row);
}

void recorder_each(const std::function<void(const book_entry &entry)> &visit) {
    for (std::uint32_t number = slots[ends].older; number != ends; number = slots[number].older)
        if (slots[number].entry.number != 0) visit(slots[number].entry);
}

}  // namespace ravo::platform
