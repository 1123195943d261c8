// SPDX-License-Identifier: Apache-2.0
// The netlink sockets. One hears of changes and is never asked anything; for each complete reading another one is
// opened, so that answers and changes do not push each other out of a buffer.
//
// When the kernel had to throw changes away (ENOBUFS), those still queued are older than the reading that follows, so
// they are thrown away too, and everything is read again; at most once a second, so that a storm of changes cannot turn
// into a storm of readings. Changes that arrive meanwhile are reported as always.
#include "inventory/inventory_netlink.h"

#include <event2/event.h>
#include <libmnl/libmnl.h>
#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <span>

#include "base/loop.h"
#include "base/owners.h"
#include "log/log.h"

namespace ravo::platform {

namespace {

constexpr std::size_t datagram_room = 64 * 1024;  // the kernel fills a dump's datagrams up to 32 KiB
constexpr int datagrams_per_wakeup = 256;
constexpr int datagrams_per_drain = 100000;
constexpr int dump_attempts = 10;
constexpr auto reread_interval = std::chrono::seconds(1);
constexpr timeval dump_patience = {5, 0};

struct close_socket {
    void operator()(mnl_socket *socket) const { mnl_socket_close(socket); }
};
using socket_ptr = std::unique_ptr<mnl_socket, close_socket>;

struct follower {
    socket_ptr socket;
    event_ptr readable;
    event_ptr reread_due;  // pending while a reading is owed
    netlink_listener listener;
    std::chrono::steady_clock::time_point last_reread;
    unsigned long rereads = 0;
};

follower now_following;

std::span<char> datagram_buffer() {
    static const std::unique_ptr<char[]> room = std::make_unique<char[]>(datagram_room);
    return {room.get(), datagram_room};
}

fault failure(const char *what) {
    return {std::string("netlink: ") + what + ": " + std::strerror(errno)};
}

// Receives one datagram from the kernel. Returns its length, 0 for one to be ignored, -1 and errno.
ssize_t receive(const mnl_socket *socket, std::span<char> buffer, int flags) {
    sockaddr_nl from{};
    iovec piece{buffer.data(), buffer.size()};
    msghdr message{};
    message.msg_name = &from;
    message.msg_namelen = sizeof from;
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    const ssize_t length = recvmsg(mnl_socket_get_fd(socket), &message, flags);
    if (length < 0) return -1;
    if (message.msg_namelen != sizeof from || from.nl_pid != 0) return 0;  // another process wrote it
    if ((message.msg_flags & MSG_TRUNC) == 0) return length;
    errno = ENOBUFS;  // part of it is lost, as if the kernel had dropped it
    return -1;
}

// ---- Complete readings ----

enum class dump_state { more, done, interrupted, failed };

dump_state read_dump_datagram(const char *data, int length, unsigned sequence, std::vector<inventory_change> *out,
                              bool *interrupted) {
    const auto *message = reinterpret_cast<const nlmsghdr *>(data);
    for (; mnl_nlmsg_ok(message, length); message = mnl_nlmsg_next(message, &length)) {
        if (message->nlmsg_seq != sequence) continue;
        if ((message->nlmsg_flags & NLM_F_DUMP_INTR) != 0) *interrupted = true;
        if (message->nlmsg_type == NLMSG_DONE) return *interrupted ? dump_state::interrupted : dump_state::done;
        if (message->nlmsg_type == NLMSG_ERROR) {
            nlmsgerr error{};
            error.error = -EBADMSG;
            if (mnl_nlmsg_get_payload_len(message) >= sizeof error)
                std::memcpy(&error, mnl_nlmsg_get_payload(message), sizeof error);
            errno = -error.error;
            return dump_state::failed;
        }
        if (auto change = netlink_parse(message)) out->push_back(std::move(*change));
    }
    return dump_state::more;
}

bool send_dump_request(const mnl_socket *socket, std::uint16_t type, std::uint8_t family, unsigned sequence) {
    alignas(nlmsghdr) char room[128];
    nlmsghdr *request = mnl_nlmsg_put_header(room);
    request->nlmsg_type = type;
    request->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request->nlmsg_seq = sequence;
    if (type == RTM_GETADDR) {
        auto *header = static_cast<ifaddrmsg *>(mnl_nlmsg_put_extra_header(request, sizeof(ifaddrmsg)));
        header->ifa_family = family;
    } else if (type == RTM_GETVLAN) {
        auto *header = static_cast<br_vlan_msg *>(mnl_nlmsg_put_extra_header(request, sizeof(br_vlan_msg)));
        header->family = family;
    } else {
        auto *header = static_cast<ifinfomsg *>(mnl_nlmsg_put_extra_header(request, sizeof(ifinfomsg)));
        header->ifi_family = family;
        mnl_attr_put_u32(request, IFLA_EXT_MASK,
                         family == AF_BRIDGE ? RTEXT_FILTER_BRVLAN_COMPRESSED : RTEXT_FILTER_SKIP_STATS);
    }
    return mnl_socket_sendto(socket, request, request->nlmsg_len) >= 0;
}

dump_state dump_once(const mnl_socket *socket, std::uint16_t type, std::uint8_t family,
                     std::vector<inventory_change> *out) {
    static unsigned sequence = 0;
    if (!send_dump_request(socket, type, family, ++sequence)) return dump_state::failed;
    bool interrupted = false;
    const std::span<char> buffer = datagram_buffer();
    for (;;) {
        const ssize_t length = receive(socket, buffer, 0);
        if (length < 0 && errno == EINTR) continue;
        if (length < 0) return dump_state::failed;
        const dump_state state =
            read_dump_datagram(buffer.data(), static_cast<int>(length), sequence, out, &interrupted);
        if (state != dump_state::more) return state;
    }
}

// Tells what the kernel lacks for a moment from what it will not do.
bool passes_by(int error) {
    return error == EINTR || error == ENOBUFS || error == ENOMEM;
}

// Devices that come or go while they are listed can make the list miss another one; such a list is asked for again, and
// so is one for which there was no room.
fault dump(const mnl_socket *socket, std::uint16_t type, std::uint8_t family, std::vector<inventory_change> *out,
           bool *complete) {
    const std::size_t before = out->size();
    fault lacked;
    for (int attempt = 0; attempt < dump_attempts; ++attempt) {
        out->resize(before, device_gone{0});
        const dump_state state = dump_once(socket, type, family, out);
        if (state == dump_state::done) return {};
        lacked = {};
        if (state == dump_state::interrupted) continue;
        // Without bridges in the kernel there is nobody to answer.
        if (family == AF_BRIDGE && errno == EOPNOTSUPP) return {};
        const bool again = passes_by(errno);
        lacked = failure("cannot list interfaces");
        if (!again) return lacked;
    }
    *complete = false;
    return lacked;
}

// ---- Changes ----

void schedule_reread() {
    if (event_pending(now_following.reread_due.get(), EV_TIMEOUT, nullptr) != 0) return;
    const auto since = std::chrono::steady_clock::now() - now_following.last_reread;
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(reread_interval - since).count();
    timeval wait{};
    if (left > 0) wait = {left / 1000000, left % 1000000};
    event_add(now_following.reread_due.get(), &wait);
}

void drain() {
    const std::span<char> buffer = datagram_buffer();
    for (int count = 0; count < datagrams_per_drain; ++count) {
        const ssize_t length = receive(now_following.socket.get(), buffer, MSG_DONTWAIT);
        if (length < 0 && errno == EAGAIN) return;
    }
}

void reread(evutil_socket_t, short, void *) {
    now_following.last_reread = std::chrono::steady_clock::now();
    drain();
    std::vector<inventory_change> all;
    bool complete = false;
    fault wrong = netlink_read_all(&all, &complete);
    // From a list with gaps one would conclude that interfaces are gone.
    if (!wrong && !complete) wrong.text = "netlink: interfaces change while they are listed";
    if (wrong) {
        log_line(log_level_error, "interfaces: %s; trying again in a second", wrong.text.c_str());
        schedule_reread();
        return;
    }
    ++now_following.rereads;
    now_following.listener.read_again(all);
    now_following.listener.settled();
}

void tell_datagram(const char *data, int length) {
    const auto *message = reinterpret_cast<const nlmsghdr *>(data);
    for (; mnl_nlmsg_ok(message, length); message = mnl_nlmsg_next(message, &length))
        if (const auto change = netlink_parse(message)) now_following.listener.changed(*change);
}

void note_loss() {
    if (event_pending(now_following.reread_due.get(), EV_TIMEOUT, nullptr) != 0) return;
    log_line(log_level_warning,
             "interfaces: changes came faster than they could be read; reading all interfaces again");
    schedule_reread();
}

void read_changes(evutil_socket_t, short, void *) {
    const std::span<char> buffer = datagram_buffer();
    for (int count = 0; count < datagrams_per_wakeup; ++count) {
        const ssize_t length = receive(now_following.socket.get(), buffer, MSG_DONTWAIT);
        if (length >= 0) {
            tell_datagram(buffer.data(), static_cast<int>(length));
            continue;
        }
        if (errno == EINTR) continue;
        if (errno == EAGAIN) break;
        if (errno != ENOBUFS) log_line(log_level_error, "interfaces: %s", failure("cannot read changes").text.c_str());
        note_loss();
        break;
    }
    now_following.listener.settled();
}

fault join_group(mnl_socket *socket, int group) {
    if (mnl_socket_setsockopt(socket, NETLINK_ADD_MEMBERSHIP, &group, sizeof group) == 0) return {};
    return failure("cannot follow changes");
}

fault open_changes(int receive_buffer, socket_ptr *out) {
    socket_ptr socket(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!socket) return failure("cannot open a socket");
    const int fd = mnl_socket_get_fd(socket.get());
    // Beyond the system's limit only with CAP_NET_ADMIN; with less room changes are lost sooner and read again.
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &receive_buffer, sizeof receive_buffer) != 0)
        (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
    if (mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) != 0) return failure("cannot bind a socket");
    for (const int group : {RTNLGRP_LINK, RTNLGRP_IPV4_IFADDR}) {
        fault wrong = join_group(socket.get(), group);
        if (wrong) return wrong;
    }
    // Kernels before 5.6 have no such group; they report most of it by link messages of the bridge family.
    (void)join_group(socket.get(), RTNLGRP_BRVLAN);
    *out = std::move(socket);
    return {};
}

}  // namespace

fault netlink_read_all(std::vector<inventory_change> *out, bool *complete) {
    *complete = true;
    const socket_ptr socket(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC));
    if (!socket) return failure("cannot open a socket");
    if (mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) != 0) return failure("cannot bind a socket");
    (void)setsockopt(mnl_socket_get_fd(socket.get()), SOL_SOCKET, SO_RCVTIMEO, &dump_patience, sizeof dump_patience);
    fault wrong = dump(socket.get(), RTM_GETLINK, AF_UNSPEC, out, complete);
    if (!wrong) wrong = dump(socket.get(), RTM_GETLINK, AF_BRIDGE, out, complete);
    // The states of members by VLAN.
    if (!wrong) wrong = dump(socket.get(), RTM_GETVLAN, AF_BRIDGE, out, complete);
    if (!wrong) wrong = dump(socket.get(), RTM_GETADDR, AF_INET, out, complete);
    return wrong;
}

void netlink_read_again_soon() {
    schedule_reread();
}

fault netlink_follow(netlink_listener listener, int receive_buffer) {
    netlink_unfollow();
    socket_ptr socket;
    fault wrong = open_changes(receive_buffer, &socket);
    if (wrong) return wrong;
    event_ptr readable(
        event_new(loop_base(), mnl_socket_get_fd(socket.get()), EV_READ | EV_PERSIST, read_changes, nullptr));
    event_ptr due(event_new(loop_base(), -1, 0, reread, nullptr));
    if (!readable || !due || event_add(readable.get(), nullptr) != 0) return {"netlink: no memory for an event"};
    now_following.socket = std::move(socket);
    now_following.readable = std::move(readable);
    now_following.reread_due = std::move(due);
    now_following.listener = std::move(listener);
    now_following.last_reread = std::chrono::steady_clock::now();
    now_following.rereads = 0;
    return {};
}

void netlink_unfollow() {
    now_following.readable.reset();
    now_following.reread_due.reset();
    now_following.socket.reset();
    now_following.listener = {};
}

unsigned long netlink_rereads() {
    return now_following.rereads;
}

}  // namespace ravo::platform
