// Small pieces of text that every room writes alike.
#ifndef PLATFORM_LINUX_BASE_TEXT_H
#define PLATFORM_LINUX_BASE_TEXT_H

#include <arpa/inet.h>

#include <cstdint>
#include <string>

namespace ravo::platform {

// An IPv4 address, in network byte order, as dotted quad.
inline std::string ipv4_text(std::uint32_t address) {
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &address, text, sizeof text);
}

}  // namespace ravo::platform

#endif
