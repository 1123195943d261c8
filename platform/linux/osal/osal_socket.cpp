// The daemon's sockets. Most calls are the system's own; three things differ from them. Address family 24 is the
// layer-2 channel. The socket on the DHCP client port, from which requests go to servers, gets a filter that refuses
// everything: it only sends, and replies reach the relay through the channel, so a copy in its queue would never be
// read. And frames are addressed by the switch's interface numbers, which are translated to the kernel's on their way
// out.

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "channel/channel.h"
#include "channel/channel_tap.h"
#include "inventory/inventory.h"
#include "log/log.h"
#include "osal.h"

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

int bind_client_port(int fd, const sockaddr *address, socklen_t length) {
    // Before the bind, so that nothing is queued in between.
    if (ravo::platform::socket_refuse_all(fd) != 0) return -1;
    const int result = ::bind(fd, address, length);
    if (result != 0 && errno == EADDRINUSE) {
        ravo::platform::log_line(ravo::platform::log_level_error,
                                 "UDP port 68 is in use by another program; the relay sends its requests from this "
                                 "port: stop that program (\"ss -lunp sport = 68\" shows it), then start ravod again");
        errno = EADDRINUSE;
    }
    return result;
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

}  // namespace

int osal_socket(int domain, int type, int protocol) {
    if (domain == OSAL_AF_CHANNEL) return ravo::platform::channel_open();
    return ::socket(domain, type | SOCK_CLOEXEC, protocol);
}

int osal_bind(int fd, const struct sockaddr *address, socklen_t length) {
    if (is_client_port(address, length) && is_udp(fd)) return bind_client_port(fd, address, length);
    return ::bind(fd, address, length);
}

int osal_setsockopt(int fd, int level, int name, const void *value, socklen_t length) {
    return ::setsockopt(fd, level, name, value, length);
}

int osal_close(int fd) {
    return channel_owns(fd) ? ravo::platform::channel_close() : ::close(fd);
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
    return ::sendto(fd, buffer, size, flags, to, to_length);
}

ssize_t osal_sendmsg(int fd, const struct msghdr *msg, int flags) {
    sockaddr_ll to;
    if (!link_destination(*msg, &to)) return ::sendmsg(fd, msg, flags);
    to.sll_ifindex = ravo::platform::inventory_kernel_ifindex(static_cast<std::uint32_t>(to.sll_ifindex));
    if (to.sll_ifindex == 0) {
        errno = ENODEV;
        return -1;
    }
    msghdr translated = *msg;
    translated.msg_name = &to;
    translated.msg_namelen = sizeof to;
    if (carries_only_origin(*msg)) {
        translated.msg_control = nullptr;
        translated.msg_controllen = 0;
    }
    return ::sendmsg(fd, &translated, flags);
}
