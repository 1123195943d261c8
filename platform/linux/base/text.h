// SPDX-License-Identifier: Apache-2.0
// Small pieces of text that every room writes alike.
#ifndef PLATFORM_LINUX_BASE_TEXT_H
#define PLATFORM_LINUX_BASE_TEXT_H

#include <arpa/inet.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace ravo::platform {

// An IPv4 address, in network byte order, as dotted quad.
inline std::string ipv4_text(std::uint32_t address) {
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &address, text, sizeof text);
}

// A text from outside, made fit for the log or a terminal: what is no printable ASCII character is shown as
// "?", and of a long one only the beginning.
inline std::string printable_text(std::string_view text, std::size_t most = 200) {
    std::string out(text.substr(0, most));
    for (char &c : out)
        if (c < ' ' || c > '~') c = '?';
    return text.size() > most ? out + "..." : out;
}

// How many bytes of a text are UTF-8, from its beginning on; all of them when it is.
std::size_t utf8_length(std::string_view text);

// A text in lines of at most 80 columns, each with its line end, broken at blanks: behind head, and from a column on in
// the lines after the first. A word that is longer is in a line of its own.
std::string wrapped_text(std::string_view head, std::string_view text, std::size_t column);

}  // namespace ravo::platform

#endif
