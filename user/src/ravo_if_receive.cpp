// SPDX-License-Identifier: Apache-2.0
// The relay's way in.
//
// While relaying is on, messages come in through the platform's layer-2 channel, with their ingress VLAN and port;
// a message is validated, counted by its type, matched to its interface and handed to local relay and to the relay
// decisions. The UDP handler does the same for a socket on port 67 that nothing opens in normal operation: both read
// their message in their own way and then go down one ladder. A message is in a message_buffer from here on, so
// that no length byte can lead a later walk out of it.
#include "ravo_if_receive.h"

#include <netinet/in.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "addr_text.h"
#include "dhcp.h"
#include "if_utl.h"
#include "osal.h"
#include "outcome.h"
#include "pkt_origin.h"
#include "port_number.h"
#include "ravo_db.h"
#include "ravo_db_if.h"
#include "ravo_if_local.h"
#include "ravo_if_option.h"
#include "ravo_if_relay.h"
#include "ravo_if_server.h"
#include "ravo_if_state.h"
#include "trace.h"
#include "wrappers.h"

namespace {

// What the layer-2 channel puts in front of a DHCP message.
constexpr std::ptrdiff_t channel_ip_size = 16;
constexpr std::ptrdiff_t channel_header_size = channel_ip_size + 8;  // and the UDP header
constexpr std::ptrdiff_t channel_destination = 12;

constexpr ssize_t least_size = 235;  // a received count up to here is too short to be relayed

// deliberate: the UDP path knows the ports up to this one only, of the first two modules.
constexpr std::uint32_t last_udp_port = 5210;

// How a message came in, as far as the steps behind it differ.
struct way_in {
    const char *handler;         // the procedure whose steps these are
    bool tells_refusals;         // deliberate: a refusal by header, options or type is silent on the channel
    bool tells_local_relay;      // that a message goes to local relay
    std::uint32_t ifindex_base;  // what makes pkt_origin's vlan_ifindex an interface number
    int level_of_no_interface;   // level of the trace for a broadcast on an unknown interface
};

constexpr way_in by_channel = {.handler = "ravo_l2_listen_hdlr",
                               .tells_refusals = false,
                               .tells_local_relay = false,
                               .ifindex_base = IF_UTL_VLAN_BASE,
                               .level_of_no_interface = ravo::level_trace};
constexpr way_in by_udp = {.handler = "ravo_if_listen_hdlr",
                           .tells_refusals = true,
                           .tells_local_relay = true,
                           .ifindex_base = 0,
                           .level_of_no_interface = ravo::level_failure};

// A message that was read, or what came of reading it.
struct incoming {
    std::uint8_t *message;            // is in a message_buffer
    ssize_t length;                   // its bytes; negative when not even the headers before it are whole
    ssize_t received;                 // all bytes received; not positive when nothing was
    int error;                        // errno of the receive
    std::uint32_t destination;        // where it was sent to, network byte order
    std::uint32_t shown_destination;  // the address that the trace of an unknown destination shows
    pkt_origin origin;                // where it came in
};

template <typename T>
T load(const std::uint8_t *at) {
    T value;
    std::memcpy(&value, at, sizeof value);
    return value;
}

// ---- The ladder: one check, one reason, one early exit ----

bool header_passes(const way_in &by, const incoming &msg) {
    if (isValidHeader(msg.message) != 0) return true;
    if (by.tells_refusals) ravo_trace_as(by.handler, ravo::level_trace, "%s (%d): Invalid header\n");
    return false;
}

// Notes the options on the way, for the steps that follow.
bool options_pass(const way_in &by, const incoming &msg, dhcp_notes *notes) {
    const auto options_len =
        static_cast<std::int32_t>(msg.length - static_cast<ssize_t>(DHCP_HEADER_SIZE));  // negative for a short message
    if (dhcp_note_valid_options(msg.message + DHCP_HEADER_SIZE, options_len, notes) != 0) return true;
    if (by.tells_refusals) ravo_trace_as(by.handler, ravo::level_trace, "%s (%d): Invalid option\n");
    outcome_record(OUTCOME_BAD_OPTIONS);
    return false;
}

bool type_passes(const way_in &by, const dhcp_notes &notes) {
    if (notes.type < 0) {
        ravo_trace_as(by.handler, ravo::level_trace, "%s (%d): No DHCP type found\n");
        outcome_record(OUTCOME_NO_MESSAGE_TYPE);
        return false;
    }
    if (notes.type >= dhcpDISCOVER && notes.type <= dhcpINFORM) return true;
    if (by.tells_refusals) ravo_trace_as(by.handler, ravo::level_trace, "%s (%d): Unknown DHCP type\n");
    outcome_record(OUTCOME_UNKNOWN_MESSAGE_TYPE);
    return false;
}

// deliberate: the result of the receive is looked at only here; the zeroed buffer was refused above.
bool was_received(const way_in &by, const incoming &msg) {
    if (msg.received >= 1) return true;
    ravo_trace_as(by.handler, ravo::level_trace, "%s (%d): Rx failed,%s\n", std::strerror(msg.error));
    return false;
}

void trace_reception(const way_in &by, const incoming &msg) {
    ravo_trace_as(by.handler, ravo::level_trace, "%s (%d): Received DHCP packet dst IP=%s, ipi_ifindex=%d\n",
                  ravo_addr_text(msg.destination).text, static_cast<int>(msg.origin.vlan_ifindex));
    ravo_print(ravo::level_trace, "===RX Bootstrap Protocol====\n");
    ravo_print(ravo::level_trace, "size=%d====\n", static_cast<int>(msg.received));
}

bool relaying_is_on(const way_in &by) {
    const std::uint32_t relay_enable = ravo_db_agent_view().relay_enable;
    if (relay_enable != 0) return true;
    ravo_trace_as(by.handler, ravo::level_trace, "%s (%d): dhcp relay is disabled, state = %d \n",
                  static_cast<int>(relay_enable));
    outcome_record(OUTCOME_RELAY_OFF);
    return false;
}

// The interface of a broadcast is the one it came in on.
const iface *find_by_ingress(const way_in &by, const incoming &msg) {
    const std::uint32_t ifindex = msg.origin.vlan_ifindex + by.ifindex_base;
    if (const iface *via = ravo_db_if_view(ifindex)) return via;
    ravo_trace_as(by.handler, by.level_of_no_interface,
                  "%s (%d): can't get relay interface by if_idx=%d from interfaceDB\n", static_cast<int>(ifindex));
    outcome_record(OUTCOME_NO_INTERFACE);
    return nullptr;
}

// The interface of any other message is the one whose address it was sent to.
const iface *find_by_destination(const way_in &by, const incoming &msg) {
    if (const iface *via = ravo_if_view_by_addr(msg.destination)) return via;
    ravo_trace_as(by.handler, ravo::level_trace,
                  "%s (%d): dest IP %s on received packet doesn't match IP address of ingress interface(ifindex=%d)\n",
                  ravo_addr_text(msg.shown_destination).text, static_cast<int>(msg.origin.vlan_ifindex));
    outcome_record(OUTCOME_NO_ADDRESS);
    return nullptr;
}

const iface *find_interface(const way_in &by, const incoming &msg) {
    return msg.destination == INADDR_BROADCAST ? find_by_ingress(by, msg) : find_by_destination(by, msg);
}

// Local relay serves the clients of an interface that has no server of its own. Returns whether it was handed the
// message, and then may have changed its options.
bool pass_to_local_relay(const way_in &by, const incoming &msg, const iface &via) {
    if (via.local_relay_state != 1 || ravo_if_get_server(&via) == 1) {
        ravo_trace_as(by.handler, ravo::level_trace, "%s (%d): dhcp local relay is disabled, state = %d \n",
                      static_cast<int>(via.local_relay_state));
        return false;
    }
    if (by.tells_local_relay) ravo_trace_as(by.handler, ravo::level_failure, "%s %d  relay_if:%s \n", via.name);
    ravo_local_relay_handle_pkt(&via, msg.message, static_cast<std::uint32_t>(msg.length), msg.origin);
    return true;
}

// notes: null when the options may have changed since they were noted.
void pass_to_relay(const way_in &by, const incoming &msg, const iface &via, const dhcp_notes *notes) {
    const auto length = static_cast<std::uint32_t>(msg.length);
    // deliberate: the whole received count is tested, headers included.
    if (msg.received <= least_size) {
        ravo_trace_as(by.handler, ravo::level_trace, "%s (%d): Packet size < DHCPHeader size\n");
        outcome_record(OUTCOME_TOO_SHORT);
    } else if (notes != nullptr) {
        ravo_if_handle_noted(&via, msg.message, length, msg.origin, *notes);
    } else {
        ravo_if_handle_pkt(&via, msg.message, length, msg.origin);
    }
}

void take_in(const way_in &by, const incoming &msg) {
    dhcp_notes notes;
    if (!header_passes(by, msg) || !options_pass(by, msg, &notes) || !type_passes(by, notes)) return;
    ravo_count_message(static_cast<std::uint8_t>(notes.type));
    if (!was_received(by, msg)) return;
    trace_reception(by, msg);
    if (!relaying_is_on(by)) return;
    const iface *via = find_interface(by, msg);
    if (via == nullptr) return;
    const bool relayed_locally = pass_to_local_relay(by, msg, *via);
    pass_to_relay(by, msg, *via, relayed_locally ? nullptr : &notes);
}

// ---- The buffer ----

// The message in hand, behind what the channel puts in front of it. A message_buffer is zero behind its message: of a
// message before only so many bytes are cleared as it, and what the relay added to it, may have left there.
struct receive_buffer {
    std::uint8_t headers[channel_header_size];
    message_buffer message;
    std::size_t used;  // bytes of the message's buffer that need not be zero
};

static_assert(offsetof(receive_buffer, message) == channel_header_size);

constexpr std::size_t growth = 4 * RAVO_AGENT_OPTION_SIZE;  // more than local relay and the decisions add to a message

receive_buffer buffer;

// Clears what is left of earlier messages behind a new one of this length; negative: there is none.
void clear_behind(ssize_t length) {
    const std::size_t held = length > 0 ? static_cast<std::size_t>(length) : 0;
    if (held < buffer.used) std::memset(buffer.message.data() + held, 0, buffer.used - held);
    buffer.used = std::min(held + growth, message_buffer::size);
}

}  // namespace

void ravo_l2_listen_hdlr(int fd, void *) {
    std::uint8_t name[64] = {};
    socklen_t name_length = sizeof name;
    auto *received = reinterpret_cast<std::uint8_t *>(&buffer);
    std::memset(received, 0, channel_header_size);
    ssize_t n =
        osal_recvfrom(fd, received, message_buffer::size, MSG_TRUNC, reinterpret_cast<sockaddr *>(name), &name_length);
    if (n < 0) {
        ravo_trace(ravo::level_trace, "%s (%d): Read socket %d error\n", fd);
        return;
    }
    n = std::min(n, static_cast<ssize_t>(message_buffer::size));  // the rest of a longer message was cut off
    clear_behind(n - channel_header_size);
    take_in(by_channel, {.message = buffer.message.data(),
                         .length = n - channel_header_size,
                         .received = n,
                         .error = 0,
                         .destination = load<std::uint32_t>(received + channel_destination),
                         // deliberate: what is behind the destination address, where the UDP header begins.
                         .shown_destination = load<std::uint32_t>(received + channel_ip_size),
                         .origin = {.vlan_ifindex = load<std::uint16_t>(name + OSAL_CHANNEL_VLAN),
                                    .port_ifindex = load<std::uint32_t>(name + OSAL_CHANNEL_PORT)}});
}

void ravo_if_listen_hdlr(int fd, void *) {
    int flags = 0;
    sockaddr_in from{};
    ravo_pktinfo info{};
    ravo_trace(ravo::level_trace, "%s (%d): listen fd =%d\n", fd);
    clear_behind(0);
    buffer.used = message_buffer::size;  // also what a receive that then counts as failed leaves there
    const ssize_t n = WrecvfromFlagsInet4(fd, buffer.message.data(), message_buffer::size, &flags, &from, &info);
    const int error = errno;
    const bool port_known = info.ipi_spec_dst >= PORT_NUMBER_FIRST && info.ipi_spec_dst <= last_udp_port;
    take_in(by_udp, {.message = buffer.message.data(),
                     .length = n,
                     .received = n,
                     .error = error,
                     .destination = info.ipi_addr,
                     .shown_destination = info.ipi_addr,
                     .origin = {.vlan_ifindex = static_cast<std::uint32_t>(info.ipi_ifindex),
                                .port_ifindex = port_known ? info.ipi_spec_dst : 0}});
}
