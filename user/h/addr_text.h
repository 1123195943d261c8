// SPDX-License-Identifier: Apache-2.0
// IPv4 addresses as dotted text, for traces and output.
#ifndef RAVO_ADDR_TEXT_H
#define RAVO_ADDR_TEXT_H

#include <arpa/inet.h>

#include <cstdint>

// Holds the text of one address, so that one line can have several.
struct addr_text {
    char text[INET_ADDRSTRLEN];
};

// Returns an address (network byte order) as dotted text.
[[nodiscard]] inline addr_text ravo_addr_text(std::uint32_t address) {
    addr_text result;
    in_addr in{};
    in.s_addr = address;
    inet_ntop(AF_INET, &in, result.text, sizeof result.text);
    return result;
}

#endif
