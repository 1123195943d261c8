// SPDX-License-Identifier: Apache-2.0
// What the micro-benchmarks measure the relay in: the real tables, timers, books and log, but no kernel. A frame is
// handed to the receive handler as the packet channel would hand it over, and what is sent is counted and gone.
#ifndef BENCH_MICRO_BOX_H
#define BENCH_MICRO_BOX_H

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <vector>

#include "channel/channel_frame.h"
#include "ravo_db_if.h"

namespace bench {

using octets = std::vector<std::uint8_t>;

inline constexpr std::uint32_t port_1_1 = 5121;  // where the client sits
inline constexpr std::uint32_t port_1_9 = 5129;  // where the servers are

inline constexpr unsigned client_vlan = 10;

// ---- Messages ----

inline constexpr std::uint8_t op_request = 1;
inline constexpr std::uint8_t op_reply = 2;

// The options of a client's DISCOVER and of a server's OFFER, without the end option.
octets discover_options();
octets offer_options();
// Option 82 as the relay writes it for a VLAN and port 1/1.
octets option82(unsigned vlan = client_vlan);
octets joined(std::initializer_list<octets> parts);

// A message with these options behind its cookie, an end option behind them, and padding up to 300 bytes. vlan: whose
// relay address a reply bears.
octets message(std::uint8_t op, const octets &options, unsigned vlan = client_vlan);
void set_xid(octets &bytes, std::size_t message_at, std::uint32_t xid);  // as it stands in memory

// ---- The box ----

struct settings {
    std::uint32_t option_state = 1;  // insert option 82
    std::uint32_t check = 1;         // check replies
};

// Starts afresh: empty tables, relaying on, vlan10 (10.10.0.1, one server 192.0.2.11) and vlan99 (192.0.2.1).
void start_box(const settings &wanted = {});

// Adds interfaces with a server each, from vlan100 on.
inline constexpr unsigned first_added = 100;
void add_interfaces(unsigned count);

// The record of the interface that clients are on.
const iface &client_interface();

// A frame on its way in.
struct arrival {
    octets frame;
    ravo::platform::frame_aux aux;
    std::uint16_t vlan = 10;
    std::uint32_t port = port_1_1;
};

inline constexpr std::size_t message_in_frame = 42;  // Ethernet, IPv4, UDP

// A broadcast of the client's; an answer of the server's to the relay's address on a VLAN.
arrival from_client(const octets &message, unsigned vlan = client_vlan);
arrival from_server(const octets &message, unsigned vlan = client_vlan);

// Hands a frame to the receive handler, as the packet channel does.
void receive(const arrival &what);

// Datagrams and frames sent since the start.
std::uint64_t sent_count();

}  // namespace bench

#endif
