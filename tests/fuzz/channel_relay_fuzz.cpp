// SPDX-License-Identifier: Apache-2.0
// Surface: frames on the wire, through the packet channel (ring, limits, decoding, guards, books) into a relay whose
// tables are filled, in a conversation (conversation.h). The eighth byte of the configuration chooses guards. Events of
// the second kind are frames of any bytes, whose IPv4 checksum may be mended; all others are messages in good frames.
//
// Contract: of each message that the channel delivers exactly that leaves the relay which the model says
// (relay_model.h), and of any other frame nothing. Without guards a good frame is delivered as it is, unless it would
// end the relay. All buffers and the stack are filled with a pattern before each frame, and the whole conversation is
// held twice, with different patterns.
//
// The ring, the inventory and the sockets that send are the fuzzer's; the program is linked with them first, so that of
// the platform's library everything else is taken.

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "channel/channel.h"
#include "channel/packet_ring.h"
#include "channel_frames.h"
#include "conversation.h"
#include "gate/gate_objects.h"
#include "gate/socket_filter.h"
#include "inventory/inventory.h"
#include "log/log.h"
#include "osal.h"
#include "ravo_access.h"
#include "ravo_if_receive.h"
#include "ravo_if_state.h"

namespace {

using conversation::arrival;
using conversation::event;
using model_world::bytes;
using namespace ravo::platform;

constexpr int ports = 4;  // each carries all VLANs with their tags, and one of them without
constexpr int uplink = 5;
constexpr int channel_fd = 1000, raw_fd = 1001, server_fd = 1002;
constexpr std::size_t headers_size = 24;
constexpr std::size_t most_message = 1000;  // that the relay takes; the rest of a longer one is cut off

// ---- What stands in for the kernel ----

struct waiting_frame {
    std::unique_ptr<std::uint8_t[]> bytes;  // of exactly its size
    std::size_t size = 0;
    frame_aux aux = {};
    int device = 0;
};
std::unique_ptr<waiting_frame> next_frame;
std::unique_ptr<waiting_frame> taken;
std::optional<arrival> delivered;
conversation::seen seen;

std::uint16_t untagged_vlan(int device) {
    return model_world::vlans[device % 3];
}

bool is_vlan(std::uint16_t vlan) {
    return std::find(std::begin(model_world::vlans), std::end(model_world::vlans), vlan) !=
           std::end(model_world::vlans);
}

std::vector<relay_model::interface> interfaces;  // of the conversation that is held

bytes bytes_at(const void *from, std::size_t size) {
    bytes out(size);
    if (size != 0) std::memcpy(out.data(), from, size);
    return out;
}

// ---- The carrier ----

switch_description description_of(std::uint8_t guards) {
    switch_description out;
    out.limit.port = out.limit.uplink = 0;  // the fuzzer's speed is not to decide
    out.guard.server_ports = (guards & 1) != 0;
    out.guard.servers = (guards & 2) != 0;
    out.guard.circuit_id = (guards & 4) != 0;
    out.guard.relay_fields = (guards & 8) != 0;
    out.guard.source_mac = (guards & 16) != 0;
    out.guard.destination = (guards & 32) != 0;
    out.guard.transactions = (guards & 64) != 0;
    return out;
}

class wire {
  public:
    static constexpr bool guarded = true;

    void begin(const std::uint8_t *choice) {
        guards_ = choice[7];
        channel_describe(description_of(guards_));
        interfaces.clear();
        for (unsigned i = 0; i < 3; ++i) interfaces.push_back(model_world::interface_of(i, choice[3 + i], choice[6]));
    }

    void spoil(const poison::pattern &with) {
        channel_frames::frame_fields fields;
        fields.message = poison::refused_message(with);
        put(channel_frames::frame_of(fields), {}, 1);
        take_in();
        poison::paint_stack(with);
    }

    std::optional<arrival> carry(const arrival &in) {
        const int device = 1 + static_cast<int>(in.port % ports);
        const bool tagged = in.port % 2 == 0 || in.vlan != untagged_vlan(device);
        channel_frames::frame_fields fields;
        fields.message = in.message;
        fields.destination_ip = ntohl(model_world::word_of(in.destination));
        put(channel_frames::frame_of(fields), {.tagged = tagged, .tci = tagged ? in.vlan : std::uint16_t{0}}, device);
        take_in();
        if (!delivered && guards_ == 0 && is_vlan(in.vlan) && !ends_relay(in))
            conversation::fail("a good frame is lost");
        if (delivered && (delivered->message != packet::part_of(in.message, 0, most_message) ||
                          delivered->destination != in.destination || delivered->vlan != in.vlan ||
                          delivered->port != 5120U + static_cast<unsigned>(device)))
            conversation::fail("another message is delivered than came in");
        return delivered;
    }

    // a: device; b: what the kernel says; c: the tag.
    std::optional<arrival> carry_raw(const event &what) {
        bytes frame = what.data;
        if ((what.b & 1) != 0) mend_checksum(&frame);
        frame_aux aux;
        aux.tagged = (what.b & 2) != 0;
        aux.checksum_valid = (what.b & 4) != 0;
        aux.checksum_not_ready = (what.b & 8) != 0;
        if ((what.b & 16) != 0) aux.tpid = 0x88A8;
        aux.tci = (what.b & 32) != 0 ? what.c : model_world::vlans[what.c % 3];
        put(frame, aux, what.a % 8);
        take_in();
        return delivered;
    }

    const conversation::seen &sent() const { return seen; }
    bool pass(unsigned /*seconds*/) { return false; }

  private:
    static void put(const bytes &frame, const frame_aux &aux, int device) {
        next_frame = std::make_unique<waiting_frame>();
        *next_frame = {std::make_unique<std::uint8_t[]>(frame.size()), frame.size(), aux, device};
        std::copy(frame.begin(), frame.end(), next_frame->bytes.get());
    }

    static void take_in() {
        delivered.reset();
        seen = {};
        if (channel_next()) ravo_l2_listen_hdlr(channel_fd, nullptr);
        (void)channel_next();  // the message is done with
        if (next_frame) conversation::fail("a frame was left in the ring");
    }

    // The reply in local relay that the relay can answer by ending alone.
    static bool ends_relay(const arrival &in) { return !in.message.empty() && in.message[0] == 2; }

    static void mend_checksum(bytes *frame) {
        if (frame->size() < 34) return;
        bytes header(frame->begin() + 14, frame->begin() + 34);
        header[10] = header[11] = 0;
        const std::uint16_t sum = channel_frames::internet_checksum(header);
        (*frame)[24] = static_cast<std::uint8_t>(sum >> 8);
        (*frame)[25] = static_cast<std::uint8_t>(sum);
    }

    std::uint8_t guards_ = 0;
};

void start_relay() {
    if (log_open("/dev/null", log_level_error)) std::abort();
    channel_know_relay(&ravo_access);
    if (channel_open() < 0) std::abort();
    ravo_l2_sock_fd = channel_fd;
    ravo_raw_sock_fd = raw_fd;
    ravo_server_sock_fd = server_fd;
}

}  // namespace

// ---- The ring ----

namespace ravo::platform {

int packet_ring::open() {
    socket_.reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    return socket_ ? 0 : errno;
}
packet_ring::~packet_ring() = default;
ravo::fault packet_ring::take_over(descriptor) {
    return {"nobody was here before"};
}
bool packet_ring::is_empty() const {
    return next_frame == nullptr;
}
std::size_t packet_ring::waiting() const {
    return next_frame == nullptr ? 0 : 1;
}
void packet_ring::give_back() {
    taken.reset();
}
int packet_ring::listen() {
    return 0;
}
bool packet_ring::take(ring_frame *out) {
    taken = std::move(next_frame);
    if (!taken) return false;
    *out = {.bytes = {taken->bytes.get(), taken->size},
            .aux = taken->aux,
            .kernel_ifindex = taken->device,
            .time_us = 1700000000000000,
            .cut = false};
    return true;
}
std::uint32_t packet_ring::take_overruns() const {
    return 0;
}

int socket_take_dhcp(int) {
    return 0;
}
// No port of the host's is taken.
int socket_refuse_all(int) {
    errno = EPERM;
    return -1;
}

// The gate is the daemon's own, not the kernel's.
std::uint64_t gate_program_number() {
    return 0;
}
bool gate_may_load() {
    return false;
}
gate_objects gate_load() {
    return {};
}
fault gate_ask(const std::string &, descriptor *) {
    return {};
}
fault gate_take(const descriptor &, gate_objects *) {
    return {};
}

// ---- The inventory ----

std::vector<tap_device> inventory_taps() {
    std::vector<tap_device> taps;
    for (int device = 1; device <= ports; ++device)
        taps.push_back({.kernel_ifindex = device, .name = "port" + std::to_string(device)});
    taps.push_back({.kernel_ifindex = uplink, .name = "uplink", .uplink = true});
    return taps;
}
ingress_result inventory_classify(int device, bool tagged, std::uint16_t tag, ingress *out) {
    if (device == uplink) return ingress_result::uplink;
    if (device < 1 || device > ports) return ingress_result::unknown_port;
    *out = {};
    out->port_ifindex = 5120U + static_cast<unsigned>(device);
    const std::uint16_t vlan = tagged ? tag : untagged_vlan(device);
    if (!is_vlan(vlan)) return ingress_result::unknown_vlan;
    out->vlan = vlan;
    return ingress_result::ok;
}
bool inventory_refuses(const ingress &, std::span<const std::uint8_t>) {
    return false;
}
std::uint16_t inventory_vlan_of_address(std::uint32_t address) {
    for (const relay_model::interface &each : interfaces)
        if (address != 0 && model_world::word_of(each.address) == address) return each.vlan;
    return 0;
}
int inventory_kernel_ifindex(std::uint32_t number) {
    return static_cast<int>(number);
}
void inventory_on_change(std::function<void()>) {}
void inventory_on_interface(interface_listener) {}
std::uint32_t inventory_port_number(const std::string &) {
    return 0;
}
std::string inventory_port_device(std::uint32_t) {
    return {};
}
std::uint16_t inventory_vlan_of_device(const std::string &) {
    return 0;
}
std::vector<inventory_row> inventory_rows() {
    return {};
}

}  // namespace ravo::platform

// ---- The sockets ----

int osal_socket(int, int, int) {
    return -1;
}
int osal_bind(int, const sockaddr *, socklen_t) {
    return -1;
}
int osal_setsockopt(int, int, int, const void *, socklen_t) {
    return -1;
}
int osal_close(int) {
    return 0;
}

ssize_t osal_recvfrom(int, void *buffer, std::size_t size, int flags, sockaddr *from, socklen_t *from_length) {
    const ssize_t got = channel_receive(buffer, size, flags, from, from_length);
    if (got < static_cast<ssize_t>(headers_size)) return got;
    const auto *at = static_cast<const std::uint8_t *>(buffer);
    const std::size_t held = std::min(size, static_cast<std::size_t>(got));
    arrival in;
    in.destination = bytes_at(at + 12, 4);
    in.message = bytes_at(at + headers_size, held - headers_size);
    const auto *source = reinterpret_cast<const std::uint8_t *>(from);
    std::memcpy(&in.port, source + OSAL_CHANNEL_PORT, sizeof in.port);
    std::memcpy(&in.vlan, source + OSAL_CHANNEL_VLAN, sizeof in.vlan);
    delivered = in;
    return got;
}

void osal_gather(int, osal_refused) {}
ssize_t osal_recvmsg(int, msghdr *, int) {
    return -1;
}

ssize_t osal_sendto(int fd, const void *buffer, std::size_t size, int, const sockaddr *to, socklen_t to_length) {
    sockaddr_in in{};
    if (fd != server_fd || to_length != sizeof in) std::abort();
    std::memcpy(&in, to, sizeof in);
    if (in.sin_family != AF_INET || in.sin_port != htons(67)) conversation::fail("a request to another port");
    seen.datagrams.push_back({bytes_at(&in.sin_addr, 4), bytes_at(buffer, size)});
    return static_cast<ssize_t>(size);
}

ssize_t osal_sendmsg(int fd, const msghdr *msg, int) {
    sockaddr_ll to{};
    if (fd != raw_fd || msg->msg_namelen != sizeof to) std::abort();
    std::memcpy(&to, msg->msg_name, sizeof to);
    bytes frame;
    for (std::size_t i = 0; i < msg->msg_iovlen; ++i) {
        const bytes part = bytes_at(msg->msg_iov[i].iov_base, msg->msg_iov[i].iov_len);
        frame.insert(frame.end(), part.begin(), part.end());
    }
    seen.frames.push_back({static_cast<std::uint16_t>(to.sll_ifindex - 1024), frame});
    return static_cast<ssize_t>(frame.size());
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static const bool started = (start_relay(), true);
    wire by;
    if (started) conversation::hold(data, size, &by);
    return 0;
}

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t *data, std::size_t size, std::size_t max_size,
                                               unsigned seed) {
    return conversation::mutate(data, size, max_size, seed);
}
