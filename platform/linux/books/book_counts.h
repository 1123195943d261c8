// SPDX-License-Identifier: Apache-2.0
// The counters of the books: in total, of each VLAN, of each port. They are in a mapped file, so that they go on
// where the daemon before left them; counting is the same as in any other memory.
#ifndef PLATFORM_LINUX_BOOKS_BOOK_COUNTS_H
#define PLATFORM_LINUX_BOOKS_BOOK_COUNTS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "books/books.h"
#include "fault.h"

namespace ravo::platform {

inline constexpr std::size_t counted_vlans = 4096;
inline constexpr std::size_t kept_count_ports = 1024;  // those beyond begin anew with each start

// Takes over what an earlier daemon counted, and goes on in its file. path: the file, made when it is missing. What was
// counted so far is left behind. The fault, if any: one line that says why counts begin anew.
fault counts_open(const std::string &path);
// Leaves the counts to the next daemon; whatever is counted from now on is counted from 0.
void counts_close();

// How often the daemon was started anew since the counts began.
std::uint32_t counts_restarts();

// Counts in total, for a VLAN and for a port, which is made when it is first heard of; for what is no VLAN or no port,
// in total alone. sent: copies of the message.
void counts_add(std::uint16_t vlan, const book_entry &message, std::uint32_t sent);
// The same for messages of which nothing but their outcome is known.
void counts_add(std::uint16_t vlan, std::uint32_t port_ifindex, relay_outcome outcome, std::uint64_t messages);

book_counters &counts_total();
book_counters *counts_of_vlan(std::uint16_t vlan);  // NULL for what is no VLAN
// Of a port, made when it is first heard of. NULL without a port, and when there is no memory for them.
book_counters *counts_of_port(std::uint32_t port_ifindex);
// The same without making any: NULL for a port never heard of.
const book_counters *counts_known_of_port(std::uint32_t port_ifindex);
// The ports that were heard of, in no order.
std::vector<std::uint32_t> counts_ports();

// Sets all of them, and the restarts, to 0.
void counts_clear();
// After all of them were looked at: those that nobody counts in take no memory again.
void counts_rest();

}  // namespace ravo::platform

#endif
