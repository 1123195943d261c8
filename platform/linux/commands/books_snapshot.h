// SPDX-License-Identifier: Apache-2.0
// The counters of one moment. While they are printed messages go on coming, and sums have to hold all the same.
#ifndef PLATFORM_LINUX_COMMANDS_BOOKS_SNAPSHOT_H
#define PLATFORM_LINUX_COMMANDS_BOOKS_SNAPSHOT_H

#include <cstdint>
#include <vector>

#include "books/book_counts.h"
#include "books/books.h"
#include "channel/channel.h"

namespace ravo::cli {

struct counted_place {
    std::uint32_t number;  // VLAN id, or a port's number
    platform::book_counters counters;
};

struct book_snapshot {
    platform::book_counters total;
    std::uint64_t lost = 0;      // messages that nobody could read in time
    std::uint32_t restarts = 0;  // of the daemon since the counts began
    std::vector<counted_place> vlans;
    std::vector<counted_place> ports;
};

inline book_snapshot take_snapshot() {
    platform::books_look();
    book_snapshot out{platform::books_total(), platform::channel_lost(), platform::counts_restarts(), {}, {}};
    for (const std::uint16_t vlan : platform::books_vlans()) out.vlans.push_back({vlan, platform::books_of_vlan(vlan)});
    for (const std::uint32_t port : platform::books_ports()) out.ports.push_back({port, platform::books_of_port(port)});
    return out;
}

}  // namespace ravo::cli

#endif
