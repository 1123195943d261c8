// SPDX-License-Identifier: Apache-2.0
// The library's sd_notify waits when the init system's queue is full, hence these few lines in its place.
#include "process/init_system.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string_view>

#include "base/descriptor_message.h"
#include "base/owners.h"

namespace ravo::platform {

namespace {

// Reads the socket's name: a path, or an abstract one that begins with "@". Returns the address's length, 0 when it is
// no such name.
socklen_t read_address(std::string_view name, sockaddr_un *address) {
    *address = {};
    address->sun_family = AF_UNIX;
    if (name.size() < 2 || name.size() >= sizeof address->sun_path || (name[0] != '/' && name[0] != '@')) return 0;
    name.copy(address->sun_path, name.size());
    std::size_t length = offsetof(sockaddr_un, sun_path) + name.size();
    if (name[0] == '@')
        address->sun_path[0] = '\0';
    else
        ++length;  // a path's NUL counts
    return static_cast<socklen_t>(length);
}

// A variable of the environment that is a number and nothing else.
std::optional<std::uint64_t> number_from(const char *name) {
    const char *text = std::getenv(name);
    if (text == nullptr) return std::nullopt;
    const char *end = text + std::strlen(text);
    std::uint64_t value = 0;
    const auto [stop, error] = std::from_chars(text, end, value);
    if (error != std::errc() || stop != end) return std::nullopt;
    return value;
}

int keeper = -1;  // of descriptors, unless it is the init system

// Returns false when there is no room for it now. to: NULL for a socket that is connected.
bool send_to(int out, sockaddr_un *to, socklen_t length, const std::string &text, int fd) {
    iovec bytes{.iov_base = const_cast<char *>(text.data()), .iov_len = text.size()};
    descriptor_room<1> room;
    msghdr message{};
    message.msg_name = to;
    message.msg_namelen = length;
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    if (fd >= 0) {
        use_room(message, room);
        put_descriptors(message, {&fd, 1});
    }
    if (::sendmsg(out, &message, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) return true;
    return errno != EAGAIN && errno != ENOBUFS && errno != ENOMEM;
}

// What another process was given says nothing about this one.
bool is_for_us(const char *name) {
    return std::getenv(name) == nullptr || number_from(name) == getpid();
}

}  // namespace

bool init_system_tell(const std::string &text, int fd) {
    const char *name = std::getenv("NOTIFY_SOCKET");
    sockaddr_un address;
    const socklen_t length = name == nullptr ? 0 : read_address(name, &address);
    if (length == 0) return true;
    const descriptor out(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    return out && send_to(out.get(), &address, length, text, fd);
}

bool init_system_tell_store(const std::string &text, int fd) {
    return keeper < 0 ? init_system_tell(text, fd) : send_to(keeper, nullptr, 0, text, fd);
}

void init_system_stores_at(int socket) {
    keeper = socket;
}

std::uint64_t init_system_watchdog() {
    return is_for_us("WATCHDOG_PID") ? number_from("WATCHDOG_USEC").value_or(0) : 0;
}

std::size_t init_system_descriptors() {
    return std::getenv("LISTEN_PID") != nullptr && is_for_us("LISTEN_PID") ? number_from("LISTEN_FDS").value_or(0) : 0;
}

}  // namespace ravo::platform
