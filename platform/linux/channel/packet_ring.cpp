// SPDX-License-Identifier: Apache-2.0
// The socket is opened for no protocol at all, gets its ring and its filter, and is bound last: the kernel queues
// frames only from that moment on. It is bound to all protocols because on a bridge's member every other binding is
// served after the bridge has taken the frame, and so sees nothing; and to no device, so that one socket hears all of
// them.
//
// A slot has room for the DHCP messages of most clients and servers. Of a longer frame the kernel queues a copy at the
// socket, in the same order, which is read from there.

#include "channel/packet_ring.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/threads.h"

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

frame_aux aux_of(const tpacket2_hdr &header) {
    tpacket_auxdata aux{};
    aux.tp_status = header.tp_status;
    aux.tp_vlan_tci = header.tp_vlan_tci;
    aux.tp_vlan_tpid = header.tp_vlan_tpid;
    return channel_frame_aux(aux);
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

tpacket2_hdr *packet_ring::slot() const {
    return reinterpret_cast<tpacket2_hdr *>(static_cast<std::uint8_t *>(ring_.get()) + at_ * slot_size);
}

void packet_ring::give_back() {
    if (!taken_) return;
    __atomic_store_n(&slot()->tp_status, TP_STATUS_KERNEL, __ATOMIC_RELEASE);
    at_ = at_ + 1 == capacity_ ? 0 : at_ + 1;
    taken_ = false;
}

// The copies wait at the socket in the order of their slots.
void packet_ring::read_whole(std::size_t size, ring_frame *out) {
    if (large_ == nullptr) large_ = std::make_unique_for_overwrite<std::uint8_t[]>(channel_frame_max);
    const ssize_t got = ::recv(socket_.get(), large_.get(), channel_frame_max, MSG_DONTWAIT);
    out->bytes = {large_.get(), got > 0 ? static_cast<std::size_t>(got) : 0};
    out->cut = out->bytes.size() < size;
}

bool packet_ring::take(ring_frame *out) {
    give_back();
    const auto *bytes = reinterpret_cast<const std::uint8_t *>(slot());
    if ((__atomic_load_n(&slot()->tp_status, __ATOMIC_ACQUIRE) & TP_STATUS_USER) == 0) return false;
    tpacket2_hdr header;
    std::memcpy(&header, bytes, sizeof header);
    taken_ = true;
    out->bytes = {bytes + header.tp_mac, header.tp_snaplen};
    out->aux = aux_of(header);
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
