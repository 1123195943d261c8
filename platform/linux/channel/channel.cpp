// SPDX-License-Identifier: Apache-2.0
// The channel is one packet socket for all devices: the gate in the kernel lets in what the relay can want, and the
// messages wait in a ring until they are taken, one a call, in the order in which they came. The event loop watches the
// socket, which is readable while the ring holds a frame that was not given back; so a burst that is not used up in one
// turn of the loop is served in the next ones, between timers, commands and interface changes. Where the kernel refuses
// the gate there are several sockets, which are read in turn (packet_rings.h).
//
// The inventory says which devices are to be listened on, and whenever that changes only the difference is let in and
// shut out.

#include "channel/channel.h"

#include <arpa/inet.h>
#include <event2/event.h>
#include <netinet/in.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "base/clock.h"
#include "base/loop.h"
#include "books/black_box.h"
#include "books/books.h"
#include "channel/channel_frame.h"
#include "channel/given_socket.h"
#include "channel/guard.h"
#include "channel/kept_gate.h"
#include "channel/limits.h"
#include "channel/packet_rings.h"
#include "channel/queue_bound.h"
#include "channel/tally.h"
#include "channel/taps.h"
#include "gate/gate.h"
#include "gate/socket_filter.h"
#include "inventory/inventory.h"
#include "log/log.h"
#include "osal.h"
#include "process/descriptor_store.h"
#include "trap/trap.h"

namespace ravo::platform {
namespace {

constexpr std::uint16_t dhcp_server_port = 67;
constexpr std::uint8_t bootreply = 2;  // RFC 2131 section 2: op
constexpr std::size_t in_ip_part_destination = 12;
// Frames dropped in one call before others get a turn; those over a port's limit cost less.
constexpr std::size_t frames_per_turn = 32;
constexpr std::size_t refused_per_turn = 256;
constexpr const char *stored_holder = "udp-67";
constexpr std::size_t spare_slots = 64;  // of the ring, for what passes the gate on other processors meanwhile
constexpr std::int64_t second_ns = 1'000'000'000;
constexpr std::int64_t flood_interval_ns = 1'000'000;
constexpr unsigned flood_messages = 4;  // over the limit within the interval
constexpr std::int64_t look_out_ns = 5'000;
constexpr timespec rest{.tv_sec = 0, .tv_nsec = 200'000};
constexpr timeval tally_interval{.tv_sec = 1, .tv_usec = 0};

struct open_channel {
    packet_rings rings;
    gate at;
    queue_bound bound{packet_rings::capacity - spare_slots};
    tap_table taps;
    descriptor udp_holder;  // keeps UDP port 67, receives nothing
    event_ptr tally_timer;
    bool recount = false;       // the gate's counts of what is queued are wrong
    std::size_t inherited = 0;  // messages in the queue that another gate let in
    // Messages over their port's limit that were refused outside the kernel, since a time.
    std::int64_t refused_since_ns = 0;
    unsigned refused = 0;
    bool in_hand = false;  // a message is to be delivered, whose parts these are
    dhcp_frame frame;
    ingress in;
};

std::int64_t clock_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * second_ns + now.tv_nsec;
}

std::unique_ptr<open_channel> channel;
int channel_fd = -1;  // while it is open
port_limits limits;
guards guard(clock_ns);
std::uint64_t lost = 0;            // messages that the queue had no room for, or only later than they are of use
std::uint64_t forgotten_lost = 0;  // of these, those that are not reported any more

// The outcome of a frame that is dropped for what it is, OUTCOME_NONE for what is no message at all.
relay_outcome outcome_of(frame_result result) {
    switch (result) {
        case frame_result::truncated:
            return OUTCOME_TRUNCATED;
        case frame_result::fragment:
            return OUTCOME_FRAGMENT;
        case frame_result::bad_ip_checksum:
            return OUTCOME_BAD_IP_CHECKSUM;
        case frame_result::bad_udp_checksum:
            return OUTCOME_BAD_UDP_CHECKSUM;
        case frame_result::unknown_vlan:
            return OUTCOME_UNKNOWN_VLAN;
        case frame_result::ok:
        case frame_result::not_ours:
            break;
    }
    return OUTCOME_NONE;
}

book_tag tag_of(const frame_aux &aux) {
    return aux.tagged ? book_tag{.protocol = aux.tpid, .tci = aux.tci} : book_tag{};
}

void drop(relay_outcome outcome, const ring_frame &received, const ingress &in, std::span<const std::uint8_t> message) {
    books_drop(outcome, in.vlan, in.port_ifindex, received.bytes, message, tag_of(received.aux), received.time_us);
}

// Drops a broken frame; its port and VLAN are said as far as they can be known.
void drop_frame(const ring_frame &received, frame_result result) {
    constexpr std::uint16_t vid_bits = 0x0FFF;
    const relay_outcome outcome = outcome_of(result);
    if (outcome == OUTCOME_NONE) return;
    const std::uint16_t vid = received.aux.tci & vid_bits;
    const bool tagged = received.aux.tagged && vid != 0;
    ingress in;
    // unknown: the totals hold it alone
    if (inventory_classify(received.kernel_ifindex, tagged, vid, &in) == ingress_result::elsewhere) return;
    drop(outcome, received, in, {});
}

// A frame that came in on an uplink. Whoever answers needs no VLAN; who asks does. On an uplink that is no port, what
// is for others is none of the relay's business.
ingress_result classify_uplink(const dhcp_frame &frame, std::span<const std::uint8_t> message, const ingress &in) {
    std::uint32_t destination;
    std::memcpy(&destination, frame.ip_part.data() + in_ip_part_destination, sizeof destination);
    const bool ours = inventory_vlan_of_address(destination) != 0;
    if (ours && !message.empty() && message.front() == bootreply) return ingress_result::ok;
    return ours || in.port_ifindex != 0 ? ingress_result::unknown_vlan : ingress_result::elsewhere;
}

// The VLAN of the relay address in a message, which is that of its client; 0 when it is no interface's.
std::uint16_t vlan_of_relay_address(std::span<const std::uint8_t> message) {
    constexpr std::size_t giaddr = 24;  // RFC 2131 section 2
    std::uint32_t address = 0;
    if (message.size() >= giaddr + sizeof address) std::memcpy(&address, &message[giaddr], sizeof address);
    return address == 0 ? std::uint16_t{0} : inventory_vlan_of_address(address);
}

// Asks the guards about a message; what one stops is dropped. Returns whether it may pass.
bool passes_guards(const tap &from, const ring_frame &received, const dhcp_frame &frame, const ingress &in) {
    const std::span<const std::uint8_t> message = frame.udp.subspan(channel_udp_header_size);
    if (!guard.minds(message)) return true;
    const relay_outcome outcome = guard.judge({from.name, from.uplink, in, received.bytes, frame.ip_part, message});
    if (outcome == OUTCOME_NONE) return true;
    if (outcome == OUTCOME_CORE_ASSERTION)
        log_line(log_level_warning,
                 "vlan%u: a reply came in where local relay is on and the check is off; the relay could answer it only "
                 "by ending, so it is dropped (core_assertions = true in [guard] lets it through)",
                 in.vlan);
    drop(outcome, received, in, message);
    return false;
}

// Whether the relay itself refuses many messages over their ports' limits just now.
bool is_flooded(const open_channel &c) {
    return c.refused >= flood_messages && clock_ns() <= c.refused_since_ns + flood_interval_ns;
}

// Where no gate in the kernel holds the queue to its bound, requests that have waited too long in overload go, unread;
// replies are read all the same, for the work on their requests is done. When it is a flood that fills the queue, those
// who keep to their limits are not to pay for it.
bool comes_too_late(const open_channel &c, const ring_frame &received, std::span<const std::uint8_t> message) {
    if (c.at.in_kernel() || c.bound.patience_us() == queue_bound::endless) return false;
    if (!message.empty() && message.front() == bootreply) return false;
    return wall_clock_us() - received.time_us > c.bound.patience_us() && !is_flooded(c);
}

// Checks and classifies one frame; what is dropped is counted. Returns whether it is to be delivered.
bool examine(open_channel &c, const tap &from, const ring_frame &received) {
    dhcp_frame *const frame = &c.frame;
    ingress *const in = &c.in;
    const frame_result result = channel_frame_decode(received.bytes, received.aux, frame);
    if (result != frame_result::ok) {
        drop_frame(received, result);
        return false;
    }
    // A VLAN id of 0 is a priority tag, which says nothing about the VLAN.
    const bool tagged = frame->tagged && frame->vid != 0;
    const std::span<const std::uint8_t> message = frame->udp.subspan(channel_udp_header_size);
    if (comes_too_late(c, received, message)) {
        ++lost;
        return false;
    }
    ingress_result place = inventory_classify(received.kernel_ifindex, tagged, frame->vid, in);
    if (place == ingress_result::uplink) place = classify_uplink(*frame, message, *in);
    switch (place) {
        case ingress_result::ok:
            if (inventory_refuses(*in, received.bytes)) {
                drop(OUTCOME_BRIDGE_REFUSED, received, *in, message);
                return false;
            }
            if (black_box_holds(in->port_ifindex)) {
                drop(OUTCOME_PORT_HELD, received, *in, message);
                return false;
            }
            if (!passes_guards(from, received, *frame, *in)) return false;
            books_open(in->vlan, in->port_ifindex, received.bytes, message, tag_of(received.aux), received.time_us);
            if (in->vlan == 0) books_client_vlan(vlan_of_relay_address(message));
            return true;
        case ingress_result::unknown_vlan:
            drop(OUTCOME_UNKNOWN_VLAN, received, {.port_ifindex = in->port_ifindex}, message);
            return false;
        case ingress_result::unknown_port:
            drop(OUTCOME_UNKNOWN_PORT, received, {}, message);
            return false;
        case ingress_result::uplink:
        case ingress_result::elsewhere:
            return false;
    }
    return false;
}

void fill_source(const ingress &in, sockaddr *from, socklen_t *from_length) {
    if (from == nullptr || from_length == nullptr) return;
    std::array<std::uint8_t, OSAL_CHANNEL_NAME_SIZE> record{};
    const sa_family_t family = OSAL_AF_CHANNEL;
    std::memcpy(record.data(), &family, sizeof family);
    std::memcpy(record.data() + OSAL_CHANNEL_PORT, &in.port_ifindex, sizeof in.port_ifindex);
    std::memcpy(record.data() + OSAL_CHANNEL_VLAN, &in.vlan, sizeof in.vlan);
    *from_length = std::min<socklen_t>(*from_length, record.size());
    std::memcpy(from, record.data(), *from_length);
}

bool is_bound_to(int fd, std::uint16_t port) {
    sockaddr_in bound{};
    socklen_t length = sizeof bound;
    return ::getsockname(fd, reinterpret_cast<sockaddr *>(&bound), &length) == 0 && bound.sin_port == htons(port) &&
           bound.sin_addr.s_addr == INADDR_ANY;
}

// The holder of the port that a daemon before left. Returns whether there is one.
bool take_over_udp_port(open_channel &c) {
    descriptor left = store_take(stored_holder);
    if (!left) return false;
    fault wrong = look_at_socket(left.get(), AF_INET, SOCK_DGRAM);
    if (!wrong && !is_bound_to(left.get(), dhcp_server_port)) wrong = {"it is bound to another port"};
    if (!wrong && socket_refuse_all(left.get()) != 0) wrong = {std::strerror(errno)};
    if (!wrong) {
        c.udp_holder = std::move(left);
        return true;
    }
    store_forget(stored_holder);
    log_line(log_level_warning, "the holder of UDP port 67 of the daemon before is closed: %s", wrong.text.c_str());
    return false;
}

// Takes UDP port 67, without which the kernel would answer servers that nobody is there. The address is bound before it
// is made shareable: deliberate, so that a program that receives on the port already keeps its datagrams.
void hold_udp_port(open_channel &c) {
    if (take_over_udp_port(c)) return;
    descriptor holder(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(dhcp_server_port);
    const int one = 1;
    if (holder && socket_refuse_all(holder.get()) == 0 &&
        ::bind(holder.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) {
        // The relay's own listener may share the port. Cannot fail on a UDP socket.
        (void)::setsockopt(holder.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        c.udp_holder = std::move(holder);
        store_keep(stored_holder, c.udp_holder.get());
        return;
    }
    if (errno == EADDRINUSE) {
        log_line(log_level_warning,
                 "UDP port 67 is in use by another program, which sees the clients' and servers' messages too; stop "
                 "it if it answers or relays them");
        return;
    }
    log_line(log_level_warning, "cannot hold UDP port 67: %s; servers may be told that the port is unreachable",
             std::strerror(errno));
}

// What a ring had no room for, of a port over its limit, is over its limit; all else is lost.
void count_overrun(open_channel &c, const ring_overrun &overrun) {
    const tap *const from = overrun.over_limit ? c.taps.find(overrun.kernel_ifindex) : nullptr;
    if (from != nullptr && from->place != gate::no_place)
        c.at.count_unread(from->place, overrun.tagged, overrun.frames);
    else
        lost += overrun.frames;
    // The gate counted them as queued.
    c.recount = true;
}

// Takes over what the gate and the rings counted.
void tally(open_channel &c) {
    const std::int64_t now_s = clock_ns() / second_ns;
    for (const ring_overrun &overrun : c.rings.take_overruns(now_s)) count_overrun(c, overrun);
    lost += tally_taps(c.at, c.taps, now_s);
}

void on_tally_timer(evutil_socket_t, short, void *) {
    if (!channel) return;
    tally(*channel);
    channel->rings.look();
    channel->bound.look_idle(clock_ns() / 1000);
    channel->at.set_room(channel->bound.room());
}

// Under a flood that the kernel does not hold back every other message of it would wake the relay, which costs many
// times what refusing it does. So it lets some gather, for less time than it may spend on messages in a row.
void rest_from_flood(open_channel &c) {
    if (!is_flooded(c)) return;
    (void)clock_nanosleep(CLOCK_MONOTONIC, 0, &rest, nullptr);
}

void note_refused(open_channel &c, std::int64_t now_ns) {
    if (now_ns > c.refused_since_ns + flood_interval_ns) {
        c.refused_since_ns = now_ns;
        c.refused = 0;
    }
    ++c.refused;
}

// Nothing waits. What was noted for this moment is done.
void settle(open_channel &c) {
    c.bound.ran_empty();
    c.inherited = 0;
    if (c.taps.some_gone()) {
        tally(c);
        c.taps.forget_gone(c.at);
    }
    if (std::exchange(c.recount, false)) c.at.note_empty();
}

// Counts a frame as taken. Returns whether it is a message that its port may send.
bool admit(open_channel &c, const tap &from, const ring_frame &received) {
    if (c.inherited == 0) [[likely]]
        c.at.take(from.place);
    else
        --c.inherited;
    if (c.bound.took()) {
        c.bound.look(clock_ns() / 1000, wall_clock_us() - received.time_us);
        c.at.set_room(c.bound.room());
    }
    if (received.cut) ++lost;
    if (received.cut || c.at.in_kernel()) return !received.cut;
    const std::int64_t now = clock_ns();
    const std::uint16_t vlan = channel_frame_vlan(received.bytes, received.aux);
    if (c.at.admit(from.place, vlan, now)) return true;
    if (!c.rings.note_over_limit(vlan != 0, now / second_ns)) note_refused(c, now);
    return false;
}

// What became of a message counts for the guard only once it is known of all that were before it.
void done_with(open_channel &c) {
    if (guard.follows_transactions() && books_outcome_in_hand() == OUTCOME_DELIVERED) {
        books_settle_waiting();
        if (books_outcome_in_hand() == OUTCOME_DELIVERED) guard.delivered(c.frame.udp.subspan(channel_udp_header_size));
    }
    books_close();
}

// Takes frames until one is to be delivered, and keeps its parts. Returns whether there is one.
bool fetch(open_channel &c) {
    done_with(c);  // the bytes of the message before are about to be overwritten
    for (std::size_t examined = 0, refused = 0; examined < frames_per_turn && refused < refused_per_turn;) {
        ring_frame received;
        if (!c.rings.take(&received)) {
            settle(c);
            rest_from_flood(c);
            return false;
        }
        const tap *from = c.taps.find(received.kernel_ifindex);
        if (c.rings.is_crowded()) c.rings.clear(from != nullptr);
        // Heard on another device too, and read there; or over the limit.
        if (from == nullptr || !admit(c, *from, received)) {
            ++refused;
            continue;
        }
        if (examine(c, *from, received)) return true;
        ++examined;
    }
    return false;
}

int fail_open(int reason) {
    trap_release();
    channel.reset();
    errno = reason;
    return -1;
}

// The devices are let in before frames pass the gate, so that of those that come in all the while none is missed.
int open_at_gate(open_channel &c) {
    kept_gate_take_over();
    if (const int reason = c.at.prepare(); reason != 0) return reason;
    c.at.set_room(c.bound.room());
    c.taps.follow(c.at, limits);
    const bool receives = c.rings.take_over(!c.at.in_kernel());
    if (const int reason = receives ? 0 : c.rings.open(); reason != 0) return reason;
    if (const int reason = c.at.attach(c.rings.first_fd()); reason != 0) return reason;
    if (!c.at.in_kernel())
        log_line(log_level_warning,
                 "the kernel refuses the program that limits what ports may send: %s; the relay holds them to the "
                 "limits itself",
                 c.at.refusal().c_str());
    c.recount = receives;
    c.inherited = receives ? c.rings.waiting() : 0;
    if (receives) return 0;
    if (const int reason = c.rings.listen(!c.at.in_kernel()); reason != 0) return reason;
    c.rings.keep();
    return 0;
}

// Ends what the channel does for others, and counts what is left to count.
void end_channel(open_channel &c) {
    channel_fd = -1;
    books_close();
    trap_release();
    inventory_on_change(nullptr);
    tally(c);
    books_on_look(nullptr);
}

void follow_devices() {
    if (!channel) return;
    channel->taps.follow(channel->at, limits);
    channel->rings.devices_changed([](int kernel_ifindex) { return channel->taps.find(kernel_ifindex) != nullptr; });
}

}  // namespace

void channel_describe(const switch_description &description) {
    limits.describe(description);
    guard.describe(description);
    if (channel) channel->taps.set_limits(channel->at, limits);
}

void channel_know_relay(const relay_access *relay) {
    guard.know_relay(relay);
}

void channel_know_transaction(std::uint32_t xid, std::uint32_t port, std::int64_t seconds) {
    guard.goes_on(xid, port, seconds);
}

int channel_open() {
    if (channel) {
        errno = EBUSY;
        return -1;
    }
    channel = std::make_unique<open_channel>();
    open_channel &c = *channel;
    c.tally_timer.reset(event_new(loop_base(), -1, EV_PERSIST, on_tally_timer, nullptr));
    if (!c.tally_timer || event_add(c.tally_timer.get(), &tally_interval) != 0) return fail_open(ENOMEM);
    if (const int reason = open_at_gate(c); reason != 0) return fail_open(reason);
    hold_udp_port(c);
    books_on_look([] {
        if (channel) tally(*channel);
    });
    inventory_on_change(follow_devices);
    channel_fd = c.rings.fd();
    return channel_fd;
}

bool channel_owns(int fd) {
    return fd >= 0 && fd == channel_fd;
}

bool channel_next() {
    if (!channel) return false;
    if (!channel->in_hand) channel->in_hand = fetch(*channel);
    return channel->in_hand;
}

// Where the kernel does not hold ports to their limits, frames are rather left to gather.
bool channel_look_out() {
    if (!channel || !channel->at.in_kernel()) return false;
    const std::int64_t until = clock_ns() + look_out_ns;
    while (channel->rings.first_is_empty())
        if (clock_ns() > until) return false;
    return true;
}

ssize_t channel_receive(void *buffer, std::size_t size, int flags, struct sockaddr *from, socklen_t *from_length) {
    if (!channel_next()) {
        errno = channel ? EAGAIN : EBADF;
        return -1;
    }
    channel->in_hand = false;
    fill_source(channel->in, from, from_length);
    const std::size_t whole = channel_frame_copy(channel->frame, buffer, size);
    return static_cast<ssize_t>((flags & MSG_TRUNC) != 0 ? whole : std::min(whole, size));
}

void channel_done() {
    if (channel)
        done_with(*channel);
    else
        books_close();
}

int channel_close() {
    if (!channel) return 0;
    end_channel(*channel);
    channel->rings.forget();
    store_forget(stored_holder);
    kept_gate_forget();
    channel.reset();
    return 0;
}

// The whole queue is there for what comes until the next daemon takes it over.
void channel_leave() {
    if (!channel) return;
    end_channel(*channel);
    channel->rings.leave();
    channel->at.note_left();
    channel->at.set_room(packet_rings::capacity - spare_slots);
    channel.reset();
}

std::uint64_t channel_lost() {
    if (channel) tally(*channel);
    return lost - forgotten_lost;
}

void channel_forget_lost() {
    forgotten_lost += channel_lost();
}

}  // namespace ravo::platform
