// SPDX-License-Identifier: Apache-2.0
// Descriptors count upward from 100, so that a descriptor in a test's expectation shows which socket is meant and a
// closed one is never mistaken for an open one.
#include "fake_socket.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>

#include "fake_script.h"

namespace fake {

std::map<int, open_socket> sockets;
std::vector<std::string> socket_calls;
std::vector<datagram> datagrams;
std::vector<frame> frames;
int channel_flags = 0;
std::size_t udp_parts = 0;
int udp_flags = 0;

namespace {

constexpr int first_descriptor = 100;

int next_descriptor = first_descriptor;
std::deque<channel_message> channel_queue;
std::deque<udp_message> udp_queue;
std::map<int, osal_refused> gathered;  // by descriptor

// Notes a call and its result, and answers the result.
int noted(const std::string &call, int result) {
    std::string text = call + " = " + std::to_string(result);
    if (result < 0) text += std::string(" ") + std::strerror(errno);
    socket_calls.push_back(text);
    return result;
}

// The answer of a call on a descriptor: the scripted one, EBADF for a descriptor that is not open, else 0.
int result_on(op operation, int fd) {
    if (const auto result = scripted(operation)) return *result;
    if (sockets.count(fd) == 1) return 0;
    errno = EBADF;
    return -1;
}

// The same of a call whose result is a number of bytes: nothing when it is to do its work.
std::optional<int> bytes_on(op operation, int fd) {
    if (const auto result = scripted(operation)) return result;
    if (sockets.count(fd) == 1) return std::nullopt;
    errno = EBADF;
    return -1;
}

std::string value_text(const void *value, socklen_t length) {
    if (length != sizeof(int)) return std::to_string(length) + " bytes";
    int number = 0;
    std::memcpy(&number, value, sizeof number);
    return std::to_string(number);
}

std::vector<control> controls_of(const msghdr &msg) {
    std::vector<control> result;
    for (const cmsghdr *entry = CMSG_FIRSTHDR(&msg); entry != nullptr;
         entry = CMSG_NXTHDR(const_cast<msghdr *>(&msg), const_cast<cmsghdr *>(entry)))
        result.push_back({entry->cmsg_level, entry->cmsg_type, static_cast<std::size_t>(entry->cmsg_len),
                          copy_bytes(CMSG_DATA(entry), entry->cmsg_len - CMSG_LEN(0))});
    return result;
}

// Writes the control messages that fit into msg. Returns the bytes written.
std::size_t write_controls(msghdr &msg, const std::vector<control> &controls) {
    bytes room;
    for (const control &entry : controls) {
        bytes message(CMSG_SPACE(entry.data.size()));
        cmsghdr header{};
        header.cmsg_len = CMSG_LEN(entry.data.size());
        header.cmsg_level = entry.level;
        header.cmsg_type = entry.type;
        std::memcpy(message.data(), &header, sizeof header);
        std::copy(entry.data.begin(), entry.data.end(), message.begin() + static_cast<long>(CMSG_LEN(0)));
        room.insert(room.end(), message.begin(), message.end());
    }
    const std::size_t size = std::min(room.size(), static_cast<std::size_t>(msg.msg_controllen));
    if (size > 0) std::memcpy(msg.msg_control, room.data(), size);
    return size;
}

}  // namespace

bool refuse(int fd, const sockaddr *to, int error) {
    const auto asked = gathered.find(fd);
    if (asked == gathered.end()) return false;
    asked->second(fd, to, error);
    return true;
}

void count_descriptors_from(int first) {
    next_descriptor = first;
}

int socket_of(int domain, const std::string &bound) {
    int found = -1;
    for (const auto &[fd, entry] : sockets) {
        if (entry.domain != domain || entry.bound != bound) continue;
        if (found != -1) return -1;
        found = fd;
    }
    return found;
}

control pktinfo_control(int ifindex, std::uint32_t spec_dst, std::uint32_t addr) {
    bytes data(12);
    std::memcpy(data.data(), &ifindex, 4);
    std::memcpy(data.data() + 4, &spec_dst, 4);
    std::memcpy(data.data() + 8, &addr, 4);
    return {IPPROTO_IP, IP_PKTINFO, CMSG_LEN(12), data};
}

void put_channel(channel_message message) {
    channel_queue.push_back(std::move(message));
}
void put_udp(udp_message message) {
    udp_queue.push_back(std::move(message));
}
std::size_t channel_waiting() {
    return channel_queue.size();
}
std::size_t udp_waiting() {
    return udp_queue.size();
}

int receive_on_channel(channel_message message) {
    put_channel(std::move(message));
    return readable(socket_of(OSAL_AF_CHANNEL));
}

void drop_socket(int fd) {
    sockets.erase(fd);
}

void reset_sockets() {
    sockets.clear();
    socket_calls.clear();
    datagrams.clear();
    frames.clear();
    channel_queue.clear();
    udp_queue.clear();
    readers.clear();
    channel_flags = 0;
    udp_parts = 0;
    udp_flags = 0;
    next_descriptor = first_descriptor;
}

}  // namespace fake

int osal_socket(int domain, int type, int protocol) {
    int result = -1;
    if (const auto answer = fake::scripted(fake::op::socket)) {
        result = *answer;
    } else {
        result = fake::next_descriptor++;
        fake::sockets[result] = {domain, type, protocol, ""};
    }
    return fake::noted(std::string("socket(") + std::to_string(domain) + ", " + std::to_string(type) + ", " +
                           std::to_string(protocol) + ")",
                       result);
}

int osal_bind(int fd, const sockaddr *address, socklen_t length) {
    const std::string where = fake::address_text(address, length);
    const int result = fake::result_on(fake::op::bind, fd);
    if (result == 0) fake::sockets[fd].bound = where;
    return fake::noted(std::string("bind(") + std::to_string(fd) + ", " + where + ")", result);
}

int osal_setsockopt(int fd, int level, int name, const void *value, socklen_t length) {
    const int result = fake::result_on(fake::op::setsockopt, fd);
    return fake::noted(std::string("setsockopt(") + std::to_string(fd) + ", " + std::to_string(level) + ", " +
                           std::to_string(name) + ", " + fake::value_text(value, length) + ")",
                       result);
}

int osal_close(int fd) {
    const int result = fake::result_on(fake::op::close, fd);
    if (result == 0) fake::sockets.erase(fd);
    const bool watched = std::any_of(fake::readers.begin(), fake::readers.end(),
                                     [fd](const fake::reader &entry) { return entry.fd == fd; });
    return fake::noted(std::string("close(") + std::to_string(fd) + (watched ? " while a reader watches it)" : ")"),
                       result);
}

ssize_t osal_recvfrom(int fd, void *buffer, std::size_t size, int flags, sockaddr *from, socklen_t *from_length) {
    fake::channel_flags = flags;
    if (const auto result = fake::bytes_on(fake::op::recvfrom, fd)) return *result;
    if (fake::channel_queue.empty()) {
        errno = EAGAIN;
        return -1;
    }
    const fake::channel_message message = fake::channel_queue.front();
    fake::channel_queue.pop_front();
    const std::size_t held = std::min(size, message.payload.size());
    if (held > 0) std::memcpy(buffer, message.payload.data(), held);
    std::uint8_t name[OSAL_CHANNEL_NAME_SIZE] = {};
    std::memcpy(name + OSAL_CHANNEL_PORT, &message.port, sizeof message.port);
    std::memcpy(name + OSAL_CHANNEL_VLAN, &message.vlan, sizeof message.vlan);
    std::memcpy(from, name, std::min<std::size_t>(sizeof name, *from_length));
    *from_length = sizeof name;
    return static_cast<ssize_t>((flags & MSG_TRUNC) != 0 ? message.payload.size() : held);
}

ssize_t osal_recvmsg(int fd, msghdr *msg, int flags) {
    if (const auto result = fake::bytes_on(fake::op::recvmsg, fd)) return *result;
    if (fake::udp_queue.empty()) {
        errno = EAGAIN;
        return -1;
    }
    const fake::udp_message message = fake::udp_queue.front();
    fake::udp_queue.pop_front();

    fake::udp_parts = msg->msg_iovlen;
    fake::udp_flags = flags;
    std::size_t copied = 0;
    for (std::size_t i = 0; i < msg->msg_iovlen; ++i) {
        const iovec &part = msg->msg_iov[i];
        const std::size_t size = std::min(part.iov_len, message.payload.size() - copied);
        if (size > 0) std::memcpy(part.iov_base, message.payload.data() + copied, size);
        copied += size;
    }
    sockaddr_in from{};
    from.sin_family = static_cast<sa_family_t>(message.from_family);
    from.sin_port = htons(message.from_port);
    from.sin_addr.s_addr = fake::address(message.from.c_str());
    if (msg->msg_name != nullptr)
        std::memcpy(msg->msg_name, &from, std::min<std::size_t>(sizeof from, msg->msg_namelen));
    msg->msg_namelen = message.from_length;
    msg->msg_controllen = fake::write_controls(*msg, message.controls);
    msg->msg_flags = message.flags;
    return static_cast<ssize_t>(copied);
}

ssize_t osal_sendto(int fd, const void *buffer, std::size_t size, int flags, const sockaddr *to, socklen_t to_length) {
    if (const auto result = fake::bytes_on(fake::op::sendto, fd)) return *result;
    fake::datagrams.push_back({fd, fake::address_text(to, to_length), fake::copy_bytes(buffer, size), flags});
    return static_cast<ssize_t>(size);
}

void osal_gather(int fd, osal_refused refused) {
    fake::gathered[fd] = refused;
}

ssize_t osal_sendmsg(int fd, const msghdr *msg, int flags) {
    if (const auto result = fake::bytes_on(fake::op::sendmsg, fd)) return *result;
    fake::frame sent{};
    sent.fd = fd;
    sent.flags = flags;
    sent.to_length = msg->msg_namelen;
    if (msg->msg_name != nullptr)
        std::memcpy(&sent.to, msg->msg_name, std::min<std::size_t>(sizeof sent.to, msg->msg_namelen));
    sent.parts = msg->msg_iovlen;
    for (std::size_t i = 0; i < msg->msg_iovlen; ++i) {
        const fake::bytes part = fake::copy_bytes(msg->msg_iov[i].iov_base, msg->msg_iov[i].iov_len);
        sent.payload.insert(sent.payload.end(), part.begin(), part.end());
    }
    sent.control_length = msg->msg_controllen;
    sent.controls = fake::controls_of(*msg);
    fake::frames.push_back(sent);
    return static_cast<ssize_t>(sent.payload.size());
}
