// A tap is opened for no protocol at all, gets its options and its filter, and is bound to its device last: the kernel
// queues frames only from that moment on. It is bound to all protocols because on a bridge's member every other binding
// is served after the bridge has taken the frame, and so sees nothing.
//
// Reading takes all frames that wait, up to a batch, in one system call. Each batch slot can hold the largest frame, so
// that the UDP checksum can be verified over the whole datagram whatever the device's MTU is; the memory behind unused
// parts of the slots never becomes real.

#include "channel/channel_tap.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_ether.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace ravo::platform {
namespace {

// Room for some thousand DHCP messages, a box full of clients after a power cut; memory is taken only by what waits.
constexpr int receive_buffer_size = 4 * 1024 * 1024;

// Offsets in a frame; with an inline 802.1Q tag everything behind the addresses stands 4 bytes later.
constexpr std::uint32_t at_ethertype = 12;
constexpr std::uint32_t at_inner_ethertype = 16;
constexpr std::uint32_t at_ip = 14;
constexpr std::uint32_t at_tagged_ip = 18;
constexpr std::uint32_t in_ip_fragment = 6;
constexpr std::uint32_t in_ip_protocol = 9;
constexpr std::uint32_t in_udp_destination = 2;
constexpr std::uint32_t fragment_offset = 0x1FFF;  // RFC 791 section 3.1
constexpr std::uint32_t dhcp_server_port = 67;
constexpr std::uint32_t whole_frame = 0x40000;

constexpr sock_filter load_byte(std::uint32_t at) {
    return BPF_STMT(BPF_LD | BPF_B | BPF_ABS, at);
}
constexpr sock_filter load_half(std::uint32_t at) {
    return BPF_STMT(BPF_LD | BPF_H | BPF_ABS, at);
}
// Loads the length of the IPv4 header at this place, options included, into the index register.
constexpr sock_filter index_ip_header(std::uint32_t at) {
    return BPF_STMT(BPF_LDX | BPF_B | BPF_MSH, at);
}
constexpr sock_filter load_half_indexed(std::uint32_t at) {
    return BPF_STMT(BPF_LD | BPF_H | BPF_IND, at);
}
constexpr sock_filter accept_bytes(std::uint32_t count) {
    return BPF_STMT(BPF_RET | BPF_K, count);
}

// Jumps are written with the numbers of instructions; the kernel wants distances from the next instruction.
constexpr std::uint8_t distance(unsigned from, unsigned to) {
    return static_cast<std::uint8_t>(to - from - 1);
}
constexpr sock_filter go(unsigned here, unsigned to) {
    return BPF_STMT(BPF_JMP | BPF_JA, distance(here, to));
}
constexpr sock_filter if_equal(unsigned here, std::uint32_t value, unsigned yes, unsigned no) {
    return BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, distance(here, yes), distance(here, no));
}
constexpr sock_filter if_any_set(unsigned here, std::uint32_t bits, unsigned yes, unsigned no) {
    return BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, bits, distance(here, yes), distance(here, no));
}

// "IPv4, UDP, no later fragment, destination port 67", with and without an inline tag. A load beyond the frame refuses
// it. A first fragment says that it is for DHCP, so it is let through to be dropped with its reason told; the later
// ones say nothing of ports.
constexpr unsigned untagged = 12;
constexpr unsigned port = 18;
constexpr unsigned yes = 19;
constexpr unsigned no = 20;
constexpr std::array dhcp_filter{
    /*  0 */ load_half(at_ethertype),
    /*  1 */ if_equal(1, ETH_P_IP, untagged, 2),
    /*  2 */ if_equal(2, ETH_P_8021Q, 3, no),
    /*  3 */ load_half(at_inner_ethertype),
    /*  4 */ if_equal(4, ETH_P_IP, 5, no),
    /*  5 */ load_byte(at_tagged_ip + in_ip_protocol),
    /*  6 */ if_equal(6, IPPROTO_UDP, 7, no),
    /*  7 */ load_half(at_tagged_ip + in_ip_fragment),
    /*  8 */ if_any_set(8, fragment_offset, no, 9),
    /*  9 */ index_ip_header(at_tagged_ip),
    /* 10 */ load_half_indexed(at_tagged_ip + in_udp_destination),
    /* 11 */ go(11, port),
    /* 12 */ load_byte(at_ip + in_ip_protocol),
    /* 13 */ if_equal(13, IPPROTO_UDP, 14, no),
    /* 14 */ load_half(at_ip + in_ip_fragment),
    /* 15 */ if_any_set(15, fragment_offset, no, 16),
    /* 16 */ index_ip_header(at_ip),
    /* 17 */ load_half_indexed(at_ip + in_udp_destination),
    /* 18 */ if_equal(port, dhcp_server_port, yes, no),
    /* 19 */ accept_bytes(whole_frame),
    /* 20 */ accept_bytes(0),
};
static_assert(dhcp_filter.size() == no + 1);

constexpr std::array refuse_filter{accept_bytes(0)};

template <std::size_t Size>
int attach_filter(int fd, const std::array<sock_filter, Size> &instructions) {
    std::array<sock_filter, Size> program = instructions;
    const sock_fprog filter{.len = Size, .filter = program.data()};
    return ::setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter);
}

int set_option(int fd, int level, int name, int value) {
    return ::setsockopt(fd, level, name, &value, sizeof value);
}

// Past the system's limit when allowed, else up to it. Whatever comes of it, the tap works.
void set_receive_buffer(int fd) {
    if (set_option(fd, SOL_SOCKET, SO_RCVBUFFORCE, receive_buffer_size) != 0) {
        (void)set_option(fd, SOL_SOCKET, SO_RCVBUF, receive_buffer_size);
    }
}

}  // namespace

descriptor tap_open(int kernel_ifindex) {
    descriptor tap(::socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!tap) return tap;
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = kernel_ifindex;
    set_receive_buffer(tap.get());
    if (attach_filter(tap.get(), dhcp_filter) != 0 || set_option(tap.get(), SOL_PACKET, PACKET_AUXDATA, 1) != 0 ||
        set_option(tap.get(), SOL_PACKET, PACKET_IGNORE_OUTGOING, 1) != 0 ||
        ::bind(tap.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        const int reason = errno;
        tap.reset();
        errno = reason;
    }
    return tap;
}

bool tap_is_bound(int fd) {
    sockaddr_ll address{};
    socklen_t length = sizeof address;
    return ::getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) == 0 && address.sll_ifindex > 0;
}

std::uint32_t tap_take_overruns(int fd) {
    tpacket_stats statistics{};
    socklen_t length = sizeof statistics;
    if (::getsockopt(fd, SOL_PACKET, PACKET_STATISTICS, &statistics, &length) != 0) return 0;
    return statistics.tp_drops;
}

int socket_refuse_all(int fd) {
    return attach_filter(fd, refuse_filter);
}

frame_batch::frame_batch() : slots_(std::make_unique_for_overwrite<std::uint8_t[]>(capacity * slot_size)) {
    for (std::size_t i = 0; i < capacity; ++i) {
        parts_[i] = {.iov_base = slots_.get() + i * slot_size, .iov_len = slot_size};
        headers_[i] = {};
        headers_[i].msg_hdr.msg_iov = &parts_[i];
        headers_[i].msg_hdr.msg_iovlen = 1;
        headers_[i].msg_hdr.msg_control = controls_[i].bytes.data();
        headers_[i].msg_hdr.msg_controllen = controls_[i].bytes.size();
    }
}

int frame_batch::receive(int fd) {
    // Only the slots of the batch before were written to.
    for (std::size_t i = 0; i < count_; ++i) headers_[i].msg_hdr.msg_controllen = controls_[i].bytes.size();
    next_ = count_ = 0;
    const int received = ::recvmmsg(fd, headers_.data(), capacity, MSG_DONTWAIT, nullptr);
    if (received > 0) count_ = static_cast<std::size_t>(received);
    return received;
}

std::span<const std::uint8_t> frame_batch::next(frame_aux *aux) {
    msghdr &header = headers_[next_].msg_hdr;
    *aux = {};
    for (cmsghdr *c = CMSG_FIRSTHDR(&header); c != nullptr; c = CMSG_NXTHDR(&header, c)) {
        if (c->cmsg_level != SOL_PACKET || c->cmsg_type != PACKET_AUXDATA) continue;
        if (c->cmsg_len < CMSG_LEN(sizeof(tpacket_auxdata))) continue;
        tpacket_auxdata data;
        std::memcpy(&data, CMSG_DATA(c), sizeof data);
        *aux = channel_frame_aux(data);
    }
    const auto *bytes = static_cast<const std::uint8_t *>(parts_[next_].iov_base);
    return {bytes, headers_[next_++].msg_len};
}

}  // namespace ravo::platform
