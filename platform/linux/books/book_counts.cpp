// SPDX-License-Identifier: Apache-2.0
// A daemon that dies while it counts leaves a message counted in part. So what is received is summed up anew from the
// outcomes, and the sum holds again.
#include "books/book_counts.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <new>
#include <numeric>
#include <utility>

#include "base/mapped_file.h"
#include "base/port_rows.h"
#include "port_number.h"

namespace ravo::platform {

namespace {

constexpr std::uint64_t magic = 0x7261766F'636E7431;  // with the form's number at its end

// What a port counts.
struct port_counters {
    std::uint32_t port = 0;  // 0: nobody's
    book_counters counters;
};

struct all_counts {
    std::uint64_t magic;
    std::uint32_t size;  // of this record: other outcomes make it another one
    std::uint32_t restarts;
    book_counters total;
    std::array<book_counters, counted_vlans> of_vlan;
    std::array<port_counters, kept_count_ports> of_port;  // by row; row 0 is no port's
};
static_assert(std::is_trivially_copyable_v<all_counts>);

constinit all_counts own{};  // where there is no file
all_counts *counts = &own;
mapping room;
port_rows rows;
std::vector<port_counters> more_ports;  // rows beyond those

std::size_t rows_in_use() {
    return std::min<std::size_t>(rows.rows, kept_count_ports + more_ports.size());
}

port_counters &row_at(std::size_t row) {
    return row < kept_count_ports ? counts->of_port[row] : more_ports[row - kept_count_ports];
}

void forget_rows() {
    if (rows.rows > 1) rows = {};
    more_ports.clear();
}

void mend(book_counters &counters) {
    counters.received = std::accumulate(counters.by_outcome.begin(), counters.by_outcome.end(), std::uint64_t{0});
}

// Ports in the order of their rows, each once; what cannot be one is left out.
void take_over_ports() {
    std::vector<port_counters> found;
    for (port_counters &each : counts->of_port) {
        if (port_number_is_port(each.port) != 0) found.push_back(each);
        each = {};
    }
    for (port_counters &each : found) {
        book_counters *counters = counts_of_port(each.port);
        if (counters == nullptr) continue;
        *counters = each.counters;
        mend(*counters);
    }
}

void take_over() {
    mend(counts->total);
    for (book_counters &each : counts->of_vlan) mend(each);
    take_over_ports();
    ++counts->restarts;
}

void begin_anew() {
    std::memset(room.get(), 0, sizeof(all_counts));
    counts->magic = magic;
    counts->size = sizeof(all_counts);
}

// Calls a function with the counters of all messages, of a VLAN and of a port.
template <typename function>
inline void each_counters(std::uint16_t vlan, std::uint32_t port_ifindex, function add) {
    add(counts->total);
    if (vlan != 0 && vlan < counted_vlans) add(counts->of_vlan[vlan]);
    const std::uint16_t known = port_row_known(rows, port_ifindex);
    if (known != 0 && known < kept_count_ports) [[likely]]
        add(counts->of_port[known].counters);
    else if (book_counters *of_port = counts_of_port(port_ifindex))
        add(*of_port);
}

}  // namespace

fault counts_open(const std::string &path) {
    if (room || rows.rows > 1) counts_close();  // what was never used is not touched
    if (const fault wrong = map_own_file(path, sizeof(all_counts), &room))
        return {path + ": counts of messages begin anew with each start: " + wrong.text};
    counts = static_cast<all_counts *>(room.get());
    const bool is_new = counts->magic == 0;
    const bool is_ours = counts->magic == magic && counts->size == sizeof(all_counts);
    if (is_ours)
        take_over();
    else
        begin_anew();
    room.rest();
    if (is_ours || is_new) return {};
    return {path + ": is no file of counts of this version; they begin anew"};
}

void counts_close() {
    counts = &own;
    room = mapping();
    std::memset(static_cast<void *>(&own), 0, sizeof own);
    forget_rows();
}

void counts_add(std::uint16_t vlan, const book_entry &message, std::uint32_t sent) {
    const std::uint8_t type = message.type < BOOK_TYPES ? message.type : std::uint8_t{0};
    each_counters(vlan, message.port_ifindex, [&, type](book_counters &counters) {
        ++counters.received;
        ++counters.by_outcome[message.outcome];
        counters.sent += sent;
        counters.by_type[type] += message.has_message ? 1 : 0;
        counters.rebroadcast += message.rebroadcast ? 1 : 0;
    });
}

void counts_add(std::uint16_t vlan, std::uint32_t port_ifindex, relay_outcome outcome, std::uint64_t messages) {
    each_counters(vlan, port_ifindex, [=](book_counters &counters) {
        counters.received += messages;
        counters.by_outcome[outcome] += messages;
    });
}

std::uint32_t counts_restarts() {
    return counts->restarts;
}

book_counters &counts_total() {
    return counts->total;
}

book_counters *counts_of_vlan(std::uint16_t vlan) {
    return vlan != 0 && vlan < counted_vlans ? &counts->of_vlan[vlan] : nullptr;
}

book_counters *counts_of_port(std::uint32_t port_ifindex) {
    const std::uint16_t row = port_row(rows, port_ifindex, UINT16_MAX);
    if (row == 0) return nullptr;
    if (row >= kept_count_ports + more_ports.size()) {
        try {
            more_ports.resize(row - kept_count_ports + 1U);
        } catch (const std::bad_alloc &) {
            return nullptr;
        }
    }
    port_counters &at = row_at(row);
    at.port = port_ifindex;
    return &at.counters;
}

const book_counters *counts_known_of_port(std::uint32_t port_ifindex) {
    const std::uint16_t row = port_row_known(rows, port_ifindex);
    return row == 0 || row >= rows_in_use() ? nullptr : &row_at(row).counters;
}

std::vector<std::uint32_t> counts_ports() {
    std::vector<std::uint32_t> ports;
    for (std::size_t row = 1; row < rows_in_use(); ++row) ports.push_back(row_at(row).port);
    return ports;
}

void counts_rest() {
    room.rest();
}

void counts_clear() {
    counts->restarts = 0;
    counts->total = {};
    counts->of_vlan.fill({});
    for (std::size_t row = 1; row < rows_in_use(); ++row) row_at(row).counters = {};
    counts_rest();
}

}  // namespace ravo::platform
