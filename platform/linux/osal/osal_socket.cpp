// SPDX-License-Identifier: Apache-2.0
// The daemon's sockets. Most calls are the system's own; six things differ from them. Address family 24 is the
// layer-2 channel. The socket on the DHCP client port, from which requests go to servers, gets a filter that refuses
// everything: it only sends, and replies reach the relay through the channel, so a copy in its queue would never be
// read. Frames are addressed by the switch's interface numbers, which are translated to the kernel's on their way out.
// What the daemon would end over is tried again when the kernel lacks something for a moment. Sending never waits: what
// the kernel has no room for is dropped and counted, and one slow server or VLAN does not take the room of the others
// (send_lanes.h). And what is sent while messages are handled may leave together (send_batch.h).

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <span>

#include "channel/channel.h"
#include "gate/socket_filter.h"
#include "inventory/inventory.h"
#include "log/log.h"
#include "osal.h"
#include "osal/once_more.h"
#include "osal/send_batch.h"
#include "osal/send_figures.h"
#include "osal/send_lanes.h"

using ravo::platform::channel_owns;
using ravo::platform::channel_receive;

namespace {

constexpr std::uint16_t dhcp_client_port = 68;

bool is_udp(int fd) {
    int type = 0;
    socklen_t length = sizeof type;
    return ::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length) == 0 && type == SOCK_DGRAM;
}

bool is_client_port(const sockaddr *address, socklen_t length) {
    sockaddr_in in{};
    if (address == nullptr || length < sizeof in) return false;
    std::memcpy(&in, address, sizeof in);
    return in.sin_family == AF_INET && in.sin_port == htons(dhcp_client_port);
}

// Room for a few thousand messages that wait for slow devices, beyond which lanes help. Without the capability to go
// past the system's limit the limit it is.
constexpr int send_buffer_size = 4 * 1024 * 1024;

void widen(int fd) {
    if (::setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &send_buffer_size, sizeof send_buffer_size) != 0)
        (void)::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &send_buffer_size, sizeof send_buffer_size);
}

ravo::platform::descriptor open_server_lane() {
    ravo::platform::descriptor lane(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(dhcp_client_port);
    const int one = 1;
    if (lane && ::setsockopt(lane.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) == 0 &&
        ravo::platform::socket_refuse_all(lane.get()) == 0 &&
        ::bind(lane.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
        return lane;
    return {};
}

// With protocol 0 it receives nothing.
ravo::platform::descriptor open_frame_lane() {
    return ravo::platform::descriptor(::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
}

ravo::platform::send_lanes servers{.open_another = open_server_lane, .count = ravo::platform::send_count_server};
ravo::platform::send_lanes frames{.open_another = open_frame_lane, .count = ravo::platform::send_count_interface};

// Gives the daemon's socket its lanes: the first of its kind that is open.
void give_lanes(ravo::platform::send_lanes &lanes, int fd) {
    if (lanes.common >= 0) return;
    lanes.common = fd;
    widen(fd);
}

int bind_client_port(int fd, const sockaddr *address, socklen_t length) {
    // Before the bind, so that nothing is queued in between.
    if (ravo::platform::socket_refuse_all(fd) != 0) return -1;
    const int result = ::bind(fd, address, length);
    if (result != 0 && errno == EADDRINUSE) {
        ravo::platform::log_line(ravo::platform::log_level_error,
                                 "UDP port 68 is in use by another program; the relay sends its requests from this "
                                 "port: stop that program (\"ss -lunp sport = 68\" shows it), then start ravod again");
        ravo::platform::log_settle_last();  // the relay ends now, and says so on standard error itself
        errno = EADDRINUSE;
    }
    if (result == 0) give_lanes(servers, fd);
    return result;
}

// The server that a datagram is for, network byte order; 0 when it is no IPv4 address.
std::uint32_t server_of(const sockaddr *to, socklen_t length) {
    sockaddr_in in;
    if (to == nullptr || length < sizeof in) return 0;
    std::memcpy(&in, to, sizeof in);
    return in.sin_family == AF_INET ? in.sin_addr.s_addr : 0;
}

// Reads a frame's destination. Returns whether the message is addressed to a link-layer address.
bool link_destination(const msghdr &msg, sockaddr_ll *to) {
    if (msg.msg_name == nullptr || msg.msg_namelen < sizeof *to) return false;
    std::memcpy(to, msg.msg_name, sizeof *to);
    return to->sll_family == AF_PACKET;
}

// Tells whether the control data is the ingress record alone. It is for switches whose kernel forwards by it; an
// ordinary kernel copies and ignores it.
bool carries_only_origin(const msghdr &msg) {
    const cmsghdr *first = CMSG_FIRSTHDR(&msg);
    return first != nullptr && first->cmsg_level == 0 && first->cmsg_type == OSAL_CMSG_ORIGIN &&
           first->cmsg_len >= sizeof(cmsghdr) && CMSG_ALIGN(first->cmsg_len) >= msg.msg_controllen;
}

// A reply, which is a message's only frame. What is broadcast again locally may be followed by copies for servers.
bool goes_to_client(const msghdr &msg) {
    constexpr std::size_t port_at = 36;  // in a frame with an IPv4 header of 20 bytes
    if (msg.msg_iovlen == 0 || msg.msg_iov[0].iov_len < port_at + 2) return false;
    std::uint16_t port = 0;
    std::memcpy(&port, static_cast<const std::uint8_t *>(msg.msg_iov[0].iov_base) + port_at, sizeof port);
    return port == htons(dhcp_client_port);
}

// A frame in one piece, which costs the kernel less than several pieces with control data.
std::span<const std::uint8_t> in_one_piece(const msghdr &msg) {
    static std::array<std::uint8_t, 2048> frame;  // longer than any that a device takes
    std::size_t length = 0;
    for (const iovec &part : std::span(msg.msg_iov, msg.msg_iovlen)) {
        if (part.iov_len > frame.size() - length) return {};
        std::memcpy(frame.data() + length, part.iov_base, part.iov_len);
        length += part.iov_len;
    }
    return std::span(frame).first(length);
}

// Sends a frame over its interface's lane, when the socket has lanes. to: with the kernel's number.
ssize_t send_frame(int fd, const msghdr &msg, int flags, std::uint32_t interface, const sockaddr_ll &to) {
    const auto over_lane = [&](const auto &send) {
        return fd == frames.common ? lanes_send(frames, interface, send) : send(fd);
    };
    const std::span<const std::uint8_t> frame =
        carries_only_origin(msg) ? in_one_piece(msg) : std::span<const std::uint8_t>();
    if (!frame.empty())
        return over_lane([&](int socket) {
            return ::sendto(socket, frame.data(), frame.size(), flags, reinterpret_cast<const sockaddr *>(&to),
                            sizeof to);
        });
    msghdr translated = msg;
    sockaddr_ll name = to;
    translated.msg_name = &name;
    translated.msg_namelen = sizeof name;
    if (carries_only_origin(msg)) {
        translated.msg_control = nullptr;
        translated.msg_controllen = 0;
    }
    return over_lane([&](int socket) { return ::sendmsg(socket, &translated, flags); });
}

}  // namespace

int osal_socket(int domain, int type, int protocol) {
    if (domain == OSAL_AF_CHANNEL) return ravo::platform::channel_open();
    const int fd = ravo::platform::once_more("socket", [=] { return ::socket(domain, type | SOCK_CLOEXEC, protocol); });
    if (fd >= 0 && domain == AF_PACKET) give_lanes(frames, fd);
    return fd;
}

int osal_bind(int fd, const struct sockaddr *address, socklen_t length) {
    return ravo::platform::once_more("bind", [=] {
        if (is_client_port(address, length) && is_udp(fd)) return bind_client_port(fd, address, length);
        return ::bind(fd, address, length);
    });
}

int osal_setsockopt(int fd, int level, int name, const void *value, socklen_t length) {
    return ravo::platform::once_more("setsockopt", [=] { return ::setsockopt(fd, level, name, value, length); });
}

int osal_close(int fd) {
    ravo::platform::batch_flush();
    if (channel_owns(fd)) return ravo::platform::channel_close();
    if (fd == servers.common) lanes_close(servers);
    if (fd == frames.common) lanes_close(frames);
    // Whatever else the kernel reports, the descriptor is gone and its number may be another's by now.
    return ::close(fd) == 0 || errno != EBADF ? 0 : -1;
}

ssize_t osal_recvfrom(int fd, void *buffer, size_t size, int flags, struct sockaddr *from, socklen_t *from_length) {
    if (channel_owns(fd)) return channel_receive(buffer, size, flags, from, from_length);
    return ::recvfrom(fd, buffer, size, flags, from, from_length);
}

ssize_t osal_recvmsg(int fd, struct msghdr *msg, int flags) {
    return ::recvmsg(fd, msg, flags);
}

ssize_t osal_sendto(int fd, const void *buffer, size_t size, int flags, const struct sockaddr *to,
                    socklen_t to_length) {
    const int now = flags | MSG_DONTWAIT;
    const std::uint32_t server = fd == servers.common ? server_of(to, to_length) : 0;
    if (server != 0 && flags == 0 && ravo::platform::batch_takes(servers)) {
        const iovec whole{const_cast<void *>(buffer), size};
        const ssize_t taken = ravo::platform::batch_add(servers, server, std::span(&whole, 1), to, to_length);
        if (taken > 0) return taken;
    }
    ravo::platform::batch_flush();  // nothing overtakes what was sent before
    if (server == 0) return ::sendto(fd, buffer, size, now, to, to_length);
    const ssize_t sent =
        lanes_send(servers, server, [=](int socket) { return ::sendto(socket, buffer, size, now, to, to_length); });
    if (sent < 0) servers.count(server, errno);
    return sent;
}

ssize_t osal_sendmsg(int fd, const struct msghdr *msg, int flags) {
    const int now = flags | MSG_DONTWAIT;
    sockaddr_ll to;
    if (!link_destination(*msg, &to)) {
        ravo::platform::batch_flush();
        return ::sendmsg(fd, msg, now);
    }
    const auto interface = static_cast<std::uint32_t>(to.sll_ifindex);
    to.sll_ifindex = ravo::platform::inventory_kernel_ifindex(interface);
    if (to.sll_ifindex != 0 && flags == 0 && fd == frames.common && carries_only_origin(*msg) && goes_to_client(*msg) &&
        ravo::platform::batch_takes(frames)) {
        const ssize_t taken = ravo::platform::batch_add(frames, interface, std::span(msg->msg_iov, msg->msg_iovlen),
                                                        reinterpret_cast<const sockaddr *>(&to), sizeof to);
        if (taken > 0) return taken;
    }
    ravo::platform::batch_flush();
    errno = ENODEV;
    ssize_t sent = -1;
    if (to.sll_ifindex != 0) sent = send_frame(fd, *msg, now, interface, to);
    if (sent < 0) frames.count(interface, errno);
    return sent;
}

void osal_gather(int fd, osal_refused refused) {
    if (fd < 0) return;
    ravo::platform::batch_open();
    if (fd == servers.common) servers.refused = refused;
    if (fd == frames.common) frames.refused = refused;
}
