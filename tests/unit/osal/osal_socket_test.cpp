// SPDX-License-Identifier: Apache-2.0
// The daemon's sockets as the platform gives them: what differs from the system's own calls, on real sockets.

#include <fcntl.h>
#include <netinet/in.h>

#include <array>

#include "channel/channel.h"
#include "channel_box.h"
#include "channel_frames.h"
#include "osal.h"
#include "osal/send_figures.h"

namespace {

using channel_box::add_port;
using channel_box::far_end;
using channel_box::ifindex;
using channel_box::inventory;
using channel_box::run;
using channel_frames::delivery_of;
using channel_frames::frame_fields;
using channel_frames::frame_of;
using channel_frames::hex;
using channel_frames::message_of;
using channel_frames::octets;

using OsalSocket = channel_box::BoxTest;

sockaddr_in inet_address(std::uint32_t address, std::uint16_t port) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = htonl(address);
    return to;
}

const sockaddr *as_sockaddr(const sockaddr_in &address) {
    return reinterpret_cast<const sockaddr *>(&address);
}

// A frame to send: header and message as two parts, and room for the ingress record.
struct outgoing {
    octets header;
    octets message;
    sockaddr_ll to{};
    std::array<iovec, 2> parts{};
    alignas(cmsghdr) std::array<std::uint8_t, 2 * CMSG_SPACE(8)> control{};
    msghdr msg{};

    outgoing(const octets &frame, int switch_ifindex)
        : header(frame.begin(), frame.begin() + 42), message(frame.begin() + 42, frame.end()) {
        to.sll_family = AF_PACKET;
        to.sll_ifindex = switch_ifindex;
        parts[0] = {.iov_base = header.data(), .iov_len = header.size()};
        parts[1] = {.iov_base = message.data(), .iov_len = message.size()};
        msg.msg_name = &to;
        msg.msg_namelen = sizeof to;
        msg.msg_iov = parts.data();
        msg.msg_iovlen = parts.size();
    }
    outgoing(const outgoing &) = delete;
    outgoing &operator=(const outgoing &) = delete;

    void add_control(int level, int type) {
        const cmsghdr head{.cmsg_len = CMSG_LEN(8), .cmsg_level = level, .cmsg_type = type};
        std::memcpy(control.data() + msg.msg_controllen, &head, sizeof head);
        msg.msg_control = control.data();
        msg.msg_controllen += CMSG_SPACE(8);
    }
};

int open_frame_socket() {
    return osal_socket(AF_PACKET, SOCK_RAW, 65535);
}

TEST_F(OsalSocket, FramesGoToTheDeviceBehindTheSwitchsNumber) {
    add_port("swp1", "c1", 700);
    inventory.devices[1034] = ifindex("swp1");
    const far_end c1("c1");
    const int raw = open_frame_socket();
    const octets frame = frame_of({.source_port = 67, .destination_port = 68});
    outgoing out(frame, 1034);
    out.add_control(0, OSAL_CMSG_ORIGIN);
    out.msg.msg_controllen = CMSG_LEN(8);

    EXPECT_EQ(osal_sendmsg(raw, &out.msg, 0), static_cast<ssize_t>(frame.size()));
    EXPECT_EQ(hex(c1.receive(0x0800)), hex(frame));
    EXPECT_EQ(out.to.sll_ifindex, 1034) << "the caller's address was changed";
    EXPECT_EQ(out.msg.msg_controllen, CMSG_LEN(8));
    osal_close(raw);
}

TEST_F(OsalSocket, FramesToANumberWithoutADeviceFail) {
    add_port("swp1", "c1", 700);
    const int raw = open_frame_socket();
    outgoing out(frame_of({}), 700);  // the kernel's number is not the switch's
    EXPECT_EQ(osal_sendmsg(raw, &out.msg, 0), -1);
    EXPECT_EQ(errno, ENODEV);
    osal_close(raw);
}

TEST_F(OsalSocket, AnOrdinaryKernelIgnoresTheIngressRecord) {
    add_port("swp1", "c1", 700);
    inventory.devices[1034] = ifindex("swp1");
    const far_end c1("c1");
    const int raw = open_frame_socket();
    const octets frame = frame_of({});
    outgoing out(frame, 700);
    out.add_control(0, OSAL_CMSG_ORIGIN);
    EXPECT_EQ(::sendmsg(raw, &out.msg, 0), static_cast<ssize_t>(frame.size()));
    EXPECT_EQ(hex(c1.receive(0x0800)), hex(frame));
    osal_close(raw);
}

TEST_F(OsalSocket, OtherControlMessagesReachTheKernel) {
    add_port("swp1", "c1", 700);
    inventory.devices[1034] = ifindex("swp1");
    const int raw = open_frame_socket();
    outgoing alone(frame_of({}), 1034);
    alone.add_control(SOL_SOCKET, 9999);
    EXPECT_EQ(osal_sendmsg(raw, &alone.msg, 0), -1);
    EXPECT_EQ(errno, EINVAL);  // the kernel's answer to a type it does not know
    outgoing behind(frame_of({}), 1034);
    behind.add_control(0, OSAL_CMSG_ORIGIN);
    behind.add_control(SOL_SOCKET, 9999);
    EXPECT_EQ(osal_sendmsg(raw, &behind.msg, 0), -1);
    EXPECT_EQ(errno, EINVAL);
    osal_close(raw);
}

TEST_F(OsalSocket, DatagramsPassThroughSendmsg) {
    const int receiver = osal_socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    const sockaddr_in address = inet_address(INADDR_LOOPBACK, 4011);
    ASSERT_EQ(osal_bind(receiver, as_sockaddr(address), sizeof address), 0);
    const int sender = osal_socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    octets message = message_of(50);
    iovec part{.iov_base = message.data(), .iov_len = message.size()};
    sockaddr_in to = address;
    msghdr msg{};
    msg.msg_name = &to;
    msg.msg_namelen = sizeof to;
    msg.msg_iov = &part;
    msg.msg_iovlen = 1;
    EXPECT_EQ(osal_sendmsg(sender, &msg, 0), 50);
    octets got(100);
    sockaddr_in from{};
    socklen_t length = sizeof from;
    EXPECT_EQ(osal_recvfrom(receiver, got.data(), got.size(), 0, reinterpret_cast<sockaddr *>(&from), &length), 50);
    got.resize(50);
    EXPECT_EQ(hex(got), hex(message));
    EXPECT_EQ(from.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_EQ(osal_close(receiver), 0);
    EXPECT_EQ(osal_close(sender), 0);
}

TEST_F(OsalSocket, PacketInformationPassesThrough) {
    const int receiver = osal_socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    const int one = 1;
    ASSERT_EQ(osal_setsockopt(receiver, IPPROTO_IP, IP_PKTINFO, &one, sizeof one), 0);
    const sockaddr_in address = inet_address(INADDR_ANY, 67);
    ASSERT_EQ(osal_bind(receiver, as_sockaddr(address), sizeof address), 0);
    const sockaddr_in to = inet_address(INADDR_LOOPBACK, 67);
    const octets message = message_of(30);
    ASSERT_EQ(osal_sendto(receiver, message.data(), message.size(), 0, as_sockaddr(to), sizeof to), 30);
    octets got(100);
    iovec part{.iov_base = got.data(), .iov_len = got.size()};
    alignas(cmsghdr) std::array<std::uint8_t, 64> control{};
    msghdr msg{};
    msg.msg_iov = &part;
    msg.msg_iovlen = 1;
    msg.msg_control = control.data();
    msg.msg_controllen = control.size();
    ASSERT_EQ(osal_recvmsg(receiver, &msg, 0), 30);
    const cmsghdr *info = CMSG_FIRSTHDR(&msg);
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->cmsg_level, IPPROTO_IP);
    EXPECT_EQ(info->cmsg_type, IP_PKTINFO);
    in_pktinfo where{};
    std::memcpy(&where, CMSG_DATA(info), sizeof where);
    EXPECT_EQ(where.ipi_ifindex, ifindex("lo"));
    osal_close(receiver);
}

TEST_F(OsalSocket, ErrorsAreTheSystems) {
    EXPECT_EQ(osal_socket(9999, SOCK_RAW, 0), -1);
    EXPECT_EQ(errno, EAFNOSUPPORT);
    const sockaddr_in address = inet_address(INADDR_ANY, 68);
    EXPECT_EQ(osal_bind(-1, as_sockaddr(address), sizeof address), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(osal_setsockopt(-1, SOL_SOCKET, SO_REUSEADDR, &address, sizeof address), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(osal_close(-1), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(osal_recvfrom(-1, nullptr, 0, 0, nullptr, nullptr), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_TRUE(log().empty());
}

TEST_F(OsalSocket, SocketsAreNotInheritedByOtherPrograms) {
    const int fd = osal_socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);
    osal_close(fd);
    const int channel = osal_socket(OSAL_AF_CHANNEL, SOCK_RAW, 0);
    EXPECT_EQ(::fcntl(channel, F_GETFD), FD_CLOEXEC);
    osal_close(channel);
}

// ---- The client port ----

// Binds as the relay binds its transmit socket.
int open_client_port() {
    const int fd = osal_socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    const int one = 1;
    EXPECT_EQ(osal_setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one), 0);
    const sockaddr_in address = inet_address(INADDR_ANY, 68);
    return osal_bind(fd, as_sockaddr(address), sizeof address) == 0 ? fd : -1;
}

TEST_F(OsalSocket, ClientPortSendsAndReceivesNothing) {
    const int relay = open_client_port();
    ASSERT_GE(relay, 0);
    const int server = osal_socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    const sockaddr_in server_address = inet_address(INADDR_LOOPBACK, 67);
    ASSERT_EQ(osal_bind(server, as_sockaddr(server_address), sizeof server_address), 0);
    const octets message = message_of(300);
    EXPECT_EQ(osal_sendto(relay, message.data(), message.size(), 0, as_sockaddr(server_address), sizeof server_address),
              300);
    octets got(400);
    sockaddr_in from{};
    socklen_t length = sizeof from;
    EXPECT_EQ(osal_recvfrom(server, got.data(), got.size(), 0, reinterpret_cast<sockaddr *>(&from), &length), 300);
    EXPECT_EQ(ntohs(from.sin_port), 68);

    // Over loopback the answer is queued, or refused, before sendto returns.
    const sockaddr_in back = inet_address(INADDR_LOOPBACK, 68);
    EXPECT_EQ(osal_sendto(server, message.data(), message.size(), 0, as_sockaddr(back), sizeof back), 300);
    EXPECT_EQ(osal_recvfrom(relay, got.data(), got.size(), MSG_DONTWAIT, nullptr, nullptr), -1);
    EXPECT_EQ(errno, EAGAIN);
    osal_close(relay);
    osal_close(server);
}

TEST_F(OsalSocket, ClientPortInUseIsNamedInTheLog) {
    const int other = ::socket(AF_INET, SOCK_DGRAM, 0);
    const sockaddr_in address = inet_address(INADDR_ANY, 68);
    ASSERT_EQ(::bind(other, as_sockaddr(address), sizeof address), 0);
    EXPECT_EQ(open_client_port(), -1);
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_EQ(log(), std::vector<std::string>{
                         "UDP port 68 is in use by another program; the relay sends its requests from this port: stop "
                         "that program (\"ss -lunp sport = 68\" shows it), then start ravod again"});
    ::close(other);
}

TEST_F(OsalSocket, OtherPortsReceive) {
    const int fd = osal_socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    const sockaddr_in address = inet_address(INADDR_LOOPBACK, 69);
    ASSERT_EQ(osal_bind(fd, as_sockaddr(address), sizeof address), 0);
    EXPECT_EQ(osal_sendto(fd, "x", 1, 0, as_sockaddr(address), sizeof address), 1);
    char got = 0;
    EXPECT_EQ(osal_recvfrom(fd, &got, 1, MSG_DONTWAIT, nullptr, nullptr), 1);
    EXPECT_EQ(got, 'x');
    osal_close(fd);
}

// ---- Nothing waits ----

// A frame or datagram of its size, sent often enough to fill any socket.
constexpr int more_than_fits = 20000;

// The servers' side: a neighbour that does not answer ARP keeps what is sent to it for seconds.
struct OsalSending : OsalSocket {
    void SetUp() override {
        OsalSocket::SetUp();
        add_port("uplink", "far", 700);
        run("ip addr add 192.0.2.1/24 dev uplink");
        run("ip neigh add 192.0.2.11 lladdr 02:00:00:00:99:11 dev uplink");
        // The neighbour's own queue shall not be what drops.
        run("sysctl -qw net.ipv4.neigh.uplink.unres_qlen_bytes=100000000");
        ravo::platform::send_figures_clear();
        relay = open_client_port();
        ASSERT_GE(relay, 0);
    }
    void TearDown() override {
        osal_close(relay);
        OsalSocket::TearDown();
    }
    bool ask(std::uint32_t server) {
        const sockaddr_in to = inet_address(server, 67);
        return osal_sendto(relay, message.data(), message.size(), 0, as_sockaddr(to), sizeof to) == 300;
    }

    static constexpr std::uint32_t alive = 0xC000020B, dead = 0xC000020C, dead_too = 0xC000020D;  // 192.0.2.11 to 13
    octets message = message_of(300);
    int relay = -1;
};

TEST_F(OsalSending, DeadServersLoseTheirMessagesAndNotThoseOfOthers) {
    const far_end server("far");
    int refused = 0;
    for (int i = 0; i < more_than_fits; ++i) {
        for (const std::uint32_t address : {dead, dead_too})
            if (!ask(address)) {
                ASSERT_EQ(errno, EAGAIN);
                ++refused;
            }
        if (i % 100 == 0) {
            ASSERT_TRUE(ask(alive)) << i << ": " << std::strerror(errno);
            const octets frame = server.receive(0x0800);
            ASSERT_GE(frame.size(), 42U) << i;
            EXPECT_EQ(hex({frame.begin() + 34, frame.begin() + 38}), hex({0, 68, 0, 67})) << "from port 68 to port 67";
        }
    }
    EXPECT_GT(refused, 0);
    EXPECT_EQ(ravo::platform::send_figures_of_server(htonl(alive)).no_room, 0U);
    const auto lost = ravo::platform::send_figures_of_server(htonl(dead)).no_room +
                      ravo::platform::send_figures_of_server(htonl(dead_too)).no_room;
    EXPECT_EQ(lost, static_cast<std::uint64_t>(refused));
}

TEST_F(OsalSending, LanesKeepThePortAndReceiveNothing) {
    while (ask(dead)) {
    }
    ASSERT_TRUE(ask(alive)) << "over a lane";
    const int client = osal_socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    const sockaddr_in back = inet_address(0xC0000201, 68);
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(osal_sendto(client, message.data(), message.size(), 0, as_sockaddr(back), sizeof back), 300);
    EXPECT_EQ(osal_recvfrom(relay, message.data(), message.size(), MSG_DONTWAIT, nullptr, nullptr), -1);
    EXPECT_EQ(errno, EAGAIN);
    osal_close(client);
    osal_close(relay);
    // The port is free again: a socket that does not share it can have it.
    const int other = ::socket(AF_INET, SOCK_DGRAM, 0);
    const sockaddr_in port = inet_address(INADDR_ANY, 68);
    EXPECT_EQ(::bind(other, as_sockaddr(port), sizeof port), 0) << std::strerror(errno);
    ::close(other);
}

TEST_F(OsalSending, AServerWithoutARouteIsCountedAsFailed) {
    EXPECT_FALSE(ask(0xC6336401));  // 198.51.100.1
    EXPECT_EQ(errno, ENETUNREACH);
    EXPECT_EQ(ravo::platform::send_figures_of_server(htonl(0xC6336401)).failed, 1U);
}

TEST_F(OsalSending, ASlowInterfaceLosesItsFramesAndNotThoseOfOthers) {
    add_port("swp1", "c1", 5121);
    add_port("swp2", "c2", 5122);
    // Takes no frame for hours, with more room than any socket has.
    run("tc qdisc add dev swp1 root tbf rate 8bit burst 1kb limit 1gb");
    inventory.devices[1034] = ifindex("swp1");
    inventory.devices[1044] = ifindex("swp2");
    const far_end c2("c2");
    const int raw = open_frame_socket();
    const octets frame = frame_of({.source_port = 67, .destination_port = 68});
    outgoing slow(frame, 1034), good(frame, 1044);
    int refused = 0;
    for (int i = 0; i < more_than_fits; ++i) {
        if (osal_sendmsg(raw, &slow.msg, 0) < 0) {
            ASSERT_EQ(errno, EAGAIN);
            ++refused;
        }
        if (i % 100 != 0) continue;
        ASSERT_EQ(osal_sendmsg(raw, &good.msg, 0), static_cast<ssize_t>(frame.size())) << i << std::strerror(errno);
        ASSERT_EQ(hex(c2.receive(0x0800)), hex(frame)) << i;
    }
    EXPECT_GT(refused, 0);
    EXPECT_EQ(ravo::platform::send_figures_of_interface(1034).no_room, static_cast<std::uint64_t>(refused));
    EXPECT_EQ(ravo::platform::send_figures_of_interface(1044).no_room, 0U);
    run("tc qdisc del dev swp1 root");
    osal_close(raw);
}

TEST_F(OsalSending, ADeviceWhoseQueueIsFullIsLackOfRoomToo) {
    add_port("swp1", "c1", 5121);
    run("tc qdisc add dev swp1 root tbf rate 8bit burst 1kb limit 2kb");
    inventory.devices[1034] = ifindex("swp1");
    const int raw = open_frame_socket();
    outgoing out(frame_of({}), 1034);
    while (osal_sendmsg(raw, &out.msg, 0) > 0) {
    }
    EXPECT_EQ(errno, ENOBUFS);
    EXPECT_EQ(ravo::platform::send_figures_of_interface(1034).no_room, 1U);
    osal_close(raw);
}

// ---- The channel ----

TEST_F(OsalSocket, Family24IsTheChannel) {
    add_port("swp1", "c1", 5121);
    channel_box::tap("swp1", 10, 5121);
    const int fd = osal_socket(OSAL_AF_CHANNEL, SOCK_RAW, 0);
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(ravo::platform::channel_owns(fd));
    octets buffer(1024);
    std::array<std::uint8_t, 64> from{};
    socklen_t length = from.size();
    auto *source = reinterpret_cast<sockaddr *>(from.data());
    EXPECT_EQ(osal_recvfrom(fd, buffer.data(), buffer.size(), MSG_TRUNC, source, &length), -1);
    EXPECT_EQ(errno, EAGAIN);

    const far_end c1("c1");
    c1.send(frame_fields{});
    pollfd wait{.fd = fd, .events = POLLIN, .revents = 0};
    ASSERT_EQ(::poll(&wait, 1, channel_box::wait_limit_ms), 1);
    length = from.size();
    ASSERT_EQ(osal_recvfrom(fd, buffer.data(), buffer.size(), MSG_TRUNC, source, &length), 324);
    buffer.resize(324);
    EXPECT_EQ(hex(buffer), hex(delivery_of({})));
    EXPECT_EQ(length, static_cast<socklen_t>(OSAL_CHANNEL_NAME_SIZE));
    EXPECT_EQ(from[OSAL_CHANNEL_PORT] | from[OSAL_CHANNEL_PORT + 1] << 8, 5121);
    EXPECT_EQ(from[OSAL_CHANNEL_VLAN], 10);

    EXPECT_EQ(osal_close(fd), 0);
    EXPECT_FALSE(ravo::platform::channel_owns(fd));
    // The kernel takes its time to close it, which a thread waits for.
    for (int waited = 0; waited < channel_box::wait_limit_ms && ::fcntl(fd, F_GETFD) != -1; ++waited)
        ::poll(nullptr, 0, 1);
    EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
}

}  // namespace
