// SPDX-License-Identifier: Apache-2.0
// Plain conversions, with no state.
#include "fake_text.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdio>
#include <cstring>

namespace fake {

std::string format_text(const char *format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    const int size = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    if (size <= 0) return {};
    std::string text(static_cast<std::size_t>(size), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, arguments);
    return text;
}

bytes copy_bytes(const void *data, std::size_t size) {
    bytes copy(size);
    if (size > 0) std::memcpy(copy.data(), data, size);
    return copy;
}

std::string address_text(const sockaddr *address, socklen_t length) {
    if (address == nullptr || length < sizeof(sa_family_t)) return "none";
    if (address->sa_family != AF_INET || length < sizeof(sockaddr_in))
        return "family " + std::to_string(address->sa_family);
    sockaddr_in in{};
    std::memcpy(&in, address, sizeof in);
    char text[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &in.sin_addr, text, sizeof text);
    const std::string longer = length == sizeof in ? "" : " in " + std::to_string(length) + " bytes";
    return std::string(text) + ":" + std::to_string(ntohs(in.sin_port)) + longer;
}

std::uint32_t address(const char *text) {
    in_addr in{};
    if (inet_pton(AF_INET, text, &in) != 1) return 0;
    return in.s_addr;
}

}  // namespace fake
