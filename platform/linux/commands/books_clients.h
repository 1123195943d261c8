// The clients that the flight recorder knows.
#ifndef PLATFORM_LINUX_COMMANDS_BOOKS_CLIENTS_H
#define PLATFORM_LINUX_COMMANDS_BOOKS_CLIENTS_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "commands/books_text.h"

namespace ravo::cli {

struct seen_client {
    platform::book_entry last;       // its last message
    std::uint16_t vlan = 0;          // where its last request came in, 0 when only replies are kept
    std::uint32_t port_ifindex = 0;  // likewise
    std::size_t messages = 0;        // of it and to it, in the recorder
};

// The clients whose messages are in the recorder, the one heard of last first.
std::vector<seen_client> seen_clients();

// A client's messages in the recorder, newest first.
std::vector<platform::book_entry> messages_of_client(const hardware_address &client);

}  // namespace ravo::cli

#endif
