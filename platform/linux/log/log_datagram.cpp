// SPDX-License-Identifier: Apache-2.0
// The socket is connected when the log is opened and again when a line finds it broken, as after the daemon's restart.
#include "log/log_datagram.h"

#include <poll.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "log/log_queue.h"

namespace ravo::platform {

namespace {

constexpr std::size_t head_room = 128;
constexpr int wait_step_ms = 200;

void disconnect(log_datagram &target) {
    if (target.fd >= 0) close(target.fd);
    target.fd = -1;
}

// Returns 0 or the reason.
int connect_again(log_datagram &target) {
    disconnect(target);
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return errno;
    if (connect(fd, reinterpret_cast<const sockaddr *>(&target.daemon), sizeof target.daemon) == 0) {
        target.fd = fd;
        return 0;
    }
    const int reason = errno;
    close(fd);
    return reason;
}

bool is_full(int reason) {
    return reason == EAGAIN || reason == ENOBUFS;
}

int send_once(const log_datagram &target, std::span<const char> bytes) {
    if (target.fd < 0) return ENOTCONN;
    return send(target.fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0 ? errno : 0;
}

struct patience {
    datagram_patience has_time;
    const void *whose;
};

// Sends bytes, and waits for room as long as there is time.
int send_patiently(const log_datagram &target, std::span<const char> bytes, const patience &how) {
    int reason = send_once(target, bytes);
    while (is_full(reason) && how.has_time != nullptr && how.has_time(how.whose)) {
        pollfd room{target.fd, POLLOUT, 0};
        (void)poll(&room, 1, wait_step_ms);  // without room the next try says so
        reason = send_once(target, bytes);
    }
    return reason;
}

// Returns 0 or the reason. A queue that is full is that of a daemon which is there; anything else may be one that went.
int send_record(log_datagram &target, const log_record &record, const patience &how) {
    std::array<char, head_room + queue_text_room> room;
    const std::span<const char> bytes = std::span(room).first(target.format(record, room));
    const int reason = send_patiently(target, bytes, how);
    if (reason == 0 || is_full(reason)) return reason;
    const int no_way = connect_again(target);
    return no_way != 0 ? no_way : send_patiently(target, bytes, how);
}

void tell_fault(const log_datagram &target, int reason) {
    char text[512];
    const int length = std::snprintf(text, sizeof text, "ravod: %s: the log is lost: %s; is a log daemon running?\n",
                                     target.daemon.sun_path, strerrordesc_np(reason));
    // Standard error is the last place to turn to; when it is gone too there is nobody left to tell.
    (void)!write(STDERR_FILENO, text, std::min(static_cast<std::size_t>(std::max(length, 0)), sizeof text - 1));
}

// Says how many lines are missing here. Returns 0 or the reason.
int send_lost(log_datagram &target, const patience &how) {
    char text[64];
    const int length = std::snprintf(text, sizeof text, "%lu lines of the log were lost here", target.lost);
    return send_record(target, {LOG_WARNING, {text, static_cast<std::size_t>(std::max(length, 0))}, {}}, how);
}

}  // namespace

int datagram_open(log_datagram &target, record_format format, const char *path) {
    target.format = format;
    target.daemon.sun_family = AF_UNIX;
    std::snprintf(target.daemon.sun_path, sizeof target.daemon.sun_path, "%s", path);
    target.lost = 0;
    return connect_again(target);
}

void datagram_close(log_datagram &target) {
    disconnect(target);
    target.lost = 0;
}

void datagram_send(log_datagram &target, const log_record &record, datagram_patience has_time, const void *whose) {
    const patience how{has_time, whose};
    int reason = 0;
    if (target.lost > 0) {
        reason = send_lost(target, how);
        if (reason == 0) target.lost = 0;
    }
    if (reason == 0) reason = send_record(target, record, how);
    if (reason != 0 && target.lost++ == 0) tell_fault(target, reason);
}

}  // namespace ravo::platform
