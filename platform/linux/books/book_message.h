// SPDX-License-Identifier: Apache-2.0
// A message of the books, from the moment it is taken until it is entered: read, related, counted, recorded.
#ifndef PLATFORM_LINUX_BOOKS_BOOK_MESSAGE_H
#define PLATFORM_LINUX_BOOKS_BOOK_MESSAGE_H

#include <cstdint>
#include <span>

#include "books/books.h"

namespace ravo::platform {

struct book_message {
    book_entry entry;
    std::uint32_t sent = 0;          // copies
    std::uint32_t identifier = 0;    // of option 54, 0: none; network byte order
    std::uint32_t source = 0;        // where its packet comes from, 0: not known; network byte order
    bool has_client = false;         // entry.client is known
    bool waits = false;              // until it is known what became of its copies
    bool some_were_refused = false;  // of its copies
};

// Notes in an empty message what it says of itself. frame: as received; message: the DHCP message in it, empty when it
// is not known.
void message_read(book_message &m, std::span<const std::uint8_t> frame, std::span<const std::uint8_t> message);

// Notes that it was sent to a server, network byte order.
void message_sent_to(book_message &m, std::uint32_t server);
// Takes back that a copy was sent. server: 0 when it was the client's.
void message_refused(book_message &m, std::uint32_t server);

// Relates it to its client (client_book.h) and its servers (server_book.h), which may say more of it.
void message_relate(book_message &m);

// Counts and records it.
void message_enter(const book_message &m);

}  // namespace ravo::platform

#endif
