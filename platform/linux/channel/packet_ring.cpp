// SPDX-License-Identifier: Apache-2.0
// The socket is opened for no protocol at all, gets its ring and its filter, and is bound last: the kernel queues
// frames only from that moment on. It is bound to all protocols because on a bridge's member every other binding is
// served after the bridge has taken the frame, and so sees nothing; and to no device, so that one socket hears all of
// them.
//
// Each slot that is taken gets a number, the next one each time, which the kernel clears when it fills the slot again.
// So a daemon that is given the ring of one before finds where that one stopped, however it ended: the slot behind the
// latest number is the next, what is from there on was never taken, and the one before it, if it was not given
// back, is the message that the daemon before had in hand, and maybe died of.
//
// A slot has room for the DHCP messages of most clients and servers. Of a longer frame the kernel queues a copy at the
// socket, in the same order, which is read from there.

#include "channel/packet_ring.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "base/threads.h"
#include "channel/given_socket.h"

namespace ravo::platform {
namespace {

constexpr std::size_t slot_size = 512;
constexpr std::size_t block_size = 64 * 1024;  // a page, or a multiple of it, on every architecture
constexpr std::size_t address_at = TPACKET_ALIGN(sizeof(tpacket2_hdr));  // in a slot
constexpr int copies_size = 1024 * 1024;                                 // room for frames longer than a slot
constexpr std::int64_t second_us = 1'000'000;

int set_option(int fd, int level, int name, int value) {
    return ::setsockopt(fd, level, name, &value, sizeof value);
}

// Past the system's limit when allowed, else up to it. Whatever comes of it, the ring works.
void set_receive_buffer(int fd) {
    if (set_option(fd, SOL_SOCKET, SO_RCVBUFFORCE, copies_size) != 0)
        (void)set_option(fd, SOL_SOCKET, SO_RCVBUF, copies_size);
}

int request_ring(int fd, std::size_t capacity) {
    const tpacket_req request{.tp_block_size = block_size,
                              .tp_block_nr = static_cast<unsigned>(capacity * slot_size / block_size),
                              .tp_frame_size = slot_size,
                              .tp_frame_nr = static_cast<unsigned>(capacity)};
    return ::setsockopt(fd, SOL_PACKET, PACKET_RX_RING, &request, sizeof request);
}

// The number of the frame's turn, 0 for one that was not taken yet.
std::uint32_t turn_of(const tpacket2_hdr &slot) {
    std::uint32_t turn;
    static_assert(sizeof slot.tp_padding == sizeof turn);
    std::memcpy(&turn, slot.tp_padding, sizeof turn);
    return turn;
}

bool is_filled(const tpacket2_hdr &slot) {
    return (__atomic_load_n(&slot.tp_status, __ATOMIC_ACQUIRE) & TP_STATUS_USER) != 0;
}

// What a socket that receives for a relay is like, as far as the kernel shows it.
fault look_at_ring_socket(int fd) {
    if (fault wrong = look_at_socket(fd, AF_PACKET, SOCK_RAW)) return wrong;
    int version = 0;
    socklen_t length = sizeof version;
    sockaddr_ll bound{};
    socklen_t bound_length = sizeof bound;
    if (::getsockopt(fd, SOL_PACKET, PACKET_VERSION, &version, &length) != 0 || version != TPACKET_V2)
        return {"it has another kind of ring"};
    if (::getsockname(fd, reinterpret_cast<sockaddr *>(&bound), &bound_length) != 0 ||
        bound.sll_protocol != htons(ETH_P_ALL) || bound.sll_ifindex != 0)
        return {"it does not hear all devices"};
    return {};
}

int device_of(const std::uint8_t *slot) {
    sockaddr_ll from;
    std::memcpy(&from, slot + address_at, sizeof from);
    return from.sll_ifindex;
}

}  // namespace

packet_ring::~packet_ring() {
    if (!socket_) return;
    const auto end = [fd = socket_.release()] { ::close(fd); };
    if (start_thread(end) != 0) end();
}

int packet_ring::open() {
    socket_.reset(::socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!socket_) return errno;
    const int fd = socket_.get();
    set_receive_buffer(fd);
    if (set_option(fd, SOL_PACKET, PACKET_VERSION, TPACKET_V2) != 0 ||
        set_option(fd, SOL_PACKET, PACKET_COPY_THRESH, 1) != 0 ||
        set_option(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, 1) != 0 || request_ring(fd, capacity_) != 0)
        return errno;
    ring_ = mapping(fd, capacity_ * slot_size);
    return ring_ ? 0 : errno;
}

int packet_ring::listen() {
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    return ::bind(socket_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 ? 0 : errno;
}

tpacket2_hdr *packet_ring::slot(std::size_t number) const {
    return reinterpret_cast<tpacket2_hdr *>(static_cast<std::uint8_t *>(ring_.get()) + number * slot_size);
}

// Finds the slot that another daemon took last, by the latest turn.
void packet_ring::find_last() {
    at_ = 0;
    turn_ = 0;
    for (std::size_t i = 0; i < capacity_; ++i) {
        const std::uint32_t turn = turn_of(*slot(i));
        if (turn == 0 || (turn_ != 0 && static_cast<std::int32_t>(turn - turn_) <= 0)) continue;
        turn_ = turn;
        at_ = i;
    }
}

// Finds the next slot in a ring that another daemon had. The kernel goes on filling it meanwhile, which the look from
// the back does not mind. Returns whether the ring is as it must be.
bool packet_ring::find_place() {
    find_last();
    taken_ = turn_ != 0 && is_filled(*slot(at_));
    const std::size_t next = turn_ == 0 ? 0 : behind(at_);
    std::size_t count = taken_ ? capacity_ - 1 : capacity_;  // from the next one on
    while (count > 0 && !is_filled(*slot((next + count - 1) % capacity_))) --count;
    for (std::size_t i = 0; i < count; ++i)
        if (!is_filled(*slot((next + i) % capacity_))) return false;
    if (taken_)
        give_back();
    else
        at_ = next;
    return turn_ != 0 || count < capacity_;
}

fault packet_ring::take_over(descriptor socket) {
    if (fault wrong = look_at_ring_socket(socket.get())) return wrong;
    ring_ = mapping(socket.get(), capacity_ * slot_size);
    if (!ring_) return {"its ring has another size"};
    const int flags = ::fcntl(socket.get(), F_GETFL);
    if (find_place() && flags >= 0 && ::fcntl(socket.get(), F_SETFL, flags | O_NONBLOCK) == 0) {
        socket_ = std::move(socket);
        return {};
    }
    ring_ = mapping();
    at_ = 0;
    turn_ = 0;
    taken_ = false;
    return {"nobody knows where its ring begins"};
}

bool packet_ring::is_empty() const {
    return !is_filled(*slot(taken_ ? behind(at_) : at_));
}

std::size_t packet_ring::waiting() const {
    std::size_t count = 0;
    while (count < capacity_ && is_filled(*slot((at_ + count) % capacity_))) ++count;
    return count;
}

void packet_ring::give_back() {
    if (!taken_) return;
    __atomic_store_n(&slot(at_)->tp_status, TP_STATUS_KERNEL, __ATOMIC_RELEASE);
    at_ = behind(at_);
    taken_ = false;
}

// The copies wait at the socket in the order of their slots. That of a frame that another daemon took and did not come
// to read is passed over: it begins otherwise.
void packet_ring::read_whole(std::size_t size, ring_frame *out) {
    if (large_ == nullptr) large_ = std::make_unique_for_overwrite<std::uint8_t[]>(channel_frame_max);
    const std::span<const std::uint8_t> begin = out->bytes;
    ssize_t got = 0;
    do got = ::recv(socket_.get(), large_.get(), channel_frame_max, MSG_DONTWAIT);
    while (got > 0 &&
           (static_cast<std::size_t>(got) < begin.size() || !std::equal(begin.begin(), begin.end(), large_.get())));
    out->bytes = {large_.get(), got > 0 ? static_cast<std::size_t>(got) : 0};
    out->cut = out->bytes.size() < size;
}

bool packet_ring::take(ring_frame *out) {
    give_back();
    tpacket2_hdr *const place = slot(at_);
    const auto *bytes = reinterpret_cast<const std::uint8_t *>(place);
    if (!is_filled(*place)) return false;
    if (++turn_ == 0) turn_ = 1;
    std::memcpy(place->tp_padding, &turn_, sizeof turn_);
    tpacket2_hdr header;
    std::memcpy(&header, bytes, sizeof header);
    taken_ = true;
    if (header.tp_mac > slot_size || header.tp_snaplen > slot_size - header.tp_mac) header.tp_snaplen = 0;
    out->bytes =
        header.tp_snaplen == 0 ? std::span<const std::uint8_t>() : std::span(bytes + header.tp_mac, header.tp_snaplen);
    out->aux = channel_frame_aux(header);
    out->kernel_ifindex = device_of(bytes);
    out->time_us = header.tp_sec * second_us + header.tp_nsec / 1000;
    out->cut = header.tp_snaplen < header.tp_len;
    if ((header.tp_status & TP_STATUS_COPY) != 0) read_whole(header.tp_len, out);
    return true;
}

std::uint32_t packet_ring::take_overruns() const {
    tpacket_stats statistics{};
    socklen_t length = sizeof statistics;
    if (::getsockopt(socket_.get(), SOL_PACKET, PACKET_STATISTICS, &statistics, &length) != 0) return 0;
    return statistics.tp_drops;
}

}  // namespace ravo::platform
