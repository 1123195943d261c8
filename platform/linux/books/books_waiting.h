// SPDX-License-Identifier: Apache-2.0
// The message in hand, and those that wait because their copies go out later. books.h has what others may do with them.
#ifndef PLATFORM_LINUX_BOOKS_BOOKS_WAITING_H
#define PLATFORM_LINUX_BOOKS_BOOKS_WAITING_H

#include <cstdint>
#include <span>
#include <string_view>

#include "books/book_message.h"
#include "log/log_subject.h"

namespace ravo::platform {

extern book_message *in_hand;  // null: none

// The place of the next message, behind those that wait; it is what it was when the last one left it.
book_message &next_place();

// Makes lines of the log those of a message, until its subject ends.
inline void begin_subject(const book_message &m) {
    log_subject_begin({m.entry.vlan, m.entry.port_ifindex, m.entry.client, m.has_client});
}
inline void end_subject(const book_message &m) {
    const auto outcome = static_cast<relay_outcome>(m.entry.outcome);
    log_subject_end(log_subject_waits() ? outcome_word(outcome) : std::string_view());
}

// Leaves the message in hand to those that wait.
void leave_waiting();

// Enters a message into all books and shows it to watchers. frame: as received, empty where it is gone already.
void enter(const book_message &m, std::span<const std::uint8_t> frame);

}  // namespace ravo::platform

#endif
