// SPDX-License-Identifier: Apache-2.0
// The clients that were heard of lately, and what is known of each.
#ifndef PLATFORM_LINUX_COMMANDS_BOOKS_CLIENTS_H
#define PLATFORM_LINUX_COMMANDS_BOOKS_CLIENTS_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "books/client_book.h"
#include "commands/books_text.h"

namespace ravo::cli {

struct seen_client {
    hardware_address client{};
    std::optional<platform::client_view> view;  // none: only replies to it were seen, or it was long ago
    platform::book_entry last;                  // its last message in the recorder; number 0: none is there
    std::uint16_t vlan = 0;                     // where its last request came in, 0 when none is known
    std::uint32_t port_ifindex = 0;             // likewise
    std::size_t messages = 0;                   // of it and to it, in the recorder
    std::int64_t heard_us = 0;                  // its last message
};

// The clients that asked, and those whose messages are in the recorder, the one heard of last first.
std::vector<seen_client> seen_clients();

// A client's messages in the recorder, newest first.
std::vector<platform::book_entry> messages_of_client(const hardware_address &client);

// The state of a client as a word for programs: "asking", "offered", "bound", "informed", "refused", "released",
// "declined", or "no-answer" when it asks in vain for 3 s; and as a person reads it in a list: "has 10.0.0.7 from
// 192.0.2.1".
std::string_view client_state_word(const platform::client_view &client);
std::string client_state_text(const platform::client_view &client);

// The same as a sentence with where the client is: "Client ... in VLAN 10 on port 1/3 has 10.0.0.7 from 192.0.2.1."
std::string client_sentence(const platform::client_view &client);

// "12s", "3m", "5h", "2d": how long ago something was.
std::string age_text(std::int64_t microseconds);

}  // namespace ravo::cli

#endif
