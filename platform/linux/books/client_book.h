// SPDX-License-Identifier: Apache-2.0
// The clients: what each asked last, and how it was answered.
//
// A table of fixed size with a line a client; the ones longest unheard of make room for others. Times are microseconds
// since 1970, addresses in network byte order.
#ifndef PLATFORM_LINUX_BOOKS_CLIENT_BOOK_H
#define PLATFORM_LINUX_BOOKS_CLIENT_BOOK_H

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

namespace ravo::platform {

using client_address = std::array<std::uint8_t, 6>;

enum class client_phase : std::uint8_t {
    asking,    // asked, and not answered yet
    offered,   // got an offer
    bound,     // got an address
    informed,  // got parameters for the address it has
    refused,   // got a NAK
    released,  // gave its address back
    declined,  // refused the address it got
};

struct client_view {
    client_address client{};
    client_phase phase = client_phase::asking;
    std::uint16_t vlan = 0;           // where its last request came in, 0: on none
    std::uint32_t port_ifindex = 0;   // likewise
    std::uint32_t address = 0;        // offered or given, 0: none
    std::uint32_t server = 0;         // that answered last, 0: none
    std::int64_t heard_us = 0;        // its last request
    std::int64_t unanswered_us = -1;  // for how long it asks in vain: since the first request behind its last answer
};

// A request of a client, as the books close it.
struct client_request {
    client_address client;
    std::uint32_t xid;
    std::uint8_t type;  // option 53
    std::uint16_t vlan;
    std::uint32_t port_ifindex;
    std::int64_t time_us;
};
void clients_note_request(const client_request &request);

// Says that the client will be noted or asked for soon, so that the processor can fetch its line meanwhile.
void clients_expect(const client_address &client);

// What is known of the request that a reply answers.
struct answered_request {
    std::uint16_t vlan;      // where it came in
    std::int64_t waited_us;  // for how long it has waited; -1: the reply is of another transaction
    bool answered_before;    // that transaction was answered and delivered in the last 300 s
};
std::optional<answered_request> clients_find_request(const client_address &client, std::uint32_t xid, std::uint8_t type,
                                                     std::int64_t time_us);

// A reply that was delivered to its client.
struct client_reply {
    client_address client;
    std::uint32_t xid;
    std::uint8_t type;
    std::uint32_t address;  // yiaddr
    std::uint32_t server;   // that gave it
    std::int64_t time_us;
};
void clients_note_delivered(const client_reply &reply);

// The client as it is at a time; none when it is not in the table.
std::optional<client_view> clients_look(const client_address &client, std::int64_t now_us);
// All of them, the one heard of last first.
std::vector<client_view> clients_all(std::int64_t now_us);

void clients_forget();
void clients_forget(const client_address &client);

}  // namespace ravo::platform

#endif
