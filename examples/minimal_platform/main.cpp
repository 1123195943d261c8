// SPDX-License-Identifier: Apache-2.0
// Relays one exchange: a client's DISCOVER to a server, and its OFFER back. With any argument it tries the platform's
// services instead.
#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

#include "boundary.h"
#include "minimal.h"
#include "ravo_access.h"
#include "ravo_conformance.h"
#include "ravo_main.h"
#include "vex_init.h"

static_assert(RAVO_BOUNDARY_VERSION == 2, "this platform is written for version 2 of the boundary");

namespace {

using minimal::bytes;

constexpr std::size_t at_your_address = 16;
constexpr std::size_t at_hardware_address = 28;
constexpr std::size_t at_cookie = 236;
constexpr std::size_t at_message_type = at_cookie + 4 + 2;

std::uint32_t address(const char *text) {
    in_addr parsed{};
    inet_pton(AF_INET, text, &parsed);
    return parsed.s_addr;
}

bytes discover() {
    bytes message(at_cookie);
    const std::uint8_t head[] = {1, 1, 6, 0, 0x5E, 0xED, 0xBE, 0xEF};  // request, Ethernet, 6 bytes, hops, transaction
    const std::uint8_t client[] = {0x02, 0, 0x5E, 0x10, 0, 0x01};
    std::copy(std::begin(head), std::end(head), message.begin());
    std::copy(std::begin(client), std::end(client), message.begin() + at_hardware_address);
    const std::uint8_t options[] = {99, 130, 83, 99, 53, 1, 1, 255};  // cookie, DISCOVER, end
    message.insert(message.end(), std::begin(options), std::end(options));
    return message;
}

// A server's answer: it sends option 82 back as it came.
bytes offer(bytes message) {
    message[0] = 2;
    message[at_message_type] = 2;
    const std::uint32_t offered = address("192.0.2.50");
    std::memcpy(&message[at_your_address], &offered, sizeof offered);
    return message;
}

// 16 bytes a line; lines of zeros are left out.
void show(const char *title, const bytes &data) {
    std::printf("%s: %zu bytes\n", title, data.size());
    for (std::size_t at = 0; at < data.size(); at += 16) {
        const std::size_t end = std::min(at + 16, data.size());
        if (std::all_of(&data[at], data.data() + end, [](std::uint8_t byte) { return byte == 0; })) continue;
        std::printf("%04zx ", at);
        for (std::size_t i = at; i < end; ++i) std::printf(" %02x", data[i]);
        std::printf("\n");
    }
}

}  // namespace

void minimal::exchange() {
    command("ip dhcp relay");
    command("ip dhcp relay information option");
    command("interface vlan <1-4094>", {"10"});
    command("ip dhcp relay address A.B.C.D", {"198.51.100.9"});

    const bytes request = came_in(discover(), INADDR_BROADCAST);
    show("to the server", request);
    if (request.empty()) return;
    show("to the client", came_in(offer(request), address("192.0.2.1")));
}

int main(int argc, char **) {
    if (argc > 1)
        return ravo_conformance([](const char *service, const char *what) { std::printf("%s: %s\n", service, what); });
    relay_access_register(&ravo_access);
    std::uintptr_t *record = VEX_INIT_alloc();
    ravo_register(record);
    return VEX_INIT_Sys_Init(record);
}
