// SPDX-License-Identifier: Apache-2.0
// Text of the fake platform's records.
#ifndef FAKE_TEXT_H
#define FAKE_TEXT_H

#include <sys/socket.h>

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace fake {

using bytes = std::vector<std::uint8_t>;

// Formats as vprintf.
std::string format_text(const char *format, va_list arguments);

// Copies memory.
bytes copy_bytes(const void *data, std::size_t size);

// An address as text: "192.0.2.1:67" for IPv4, with " in N bytes" behind it when it is given more than it has, "family
// N" for any other.
std::string address_text(const sockaddr *address, socklen_t length);

// "192.0.2.1" as an address in network byte order.
std::uint32_t address(const char *text);

}  // namespace fake

#endif
