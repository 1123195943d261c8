// Lines for the system's log daemon. The socket is connected when the log is opened and again when a line finds it
// broken, as after the log daemon's restart. A line that finds nobody, or the daemon's queue full, is lost; the first
// one of a row is told on standard error, and how many they were stands in the log when it goes on.
#include "log/log_syslog.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace ravo::platform {

namespace {

constexpr std::size_t head_room = 64;
constexpr std::size_t line_room = 4096;

sockaddr_un log_socket{};
int log_fd = -1;
unsigned long lost = 0;  // lines in a row that could not be sent

void disconnect() {
    if (log_fd >= 0) close(log_fd);
    log_fd = -1;
}

// Returns 0 or the reason.
int connect_log() {
    disconnect();
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return errno;
    if (connect(fd, reinterpret_cast<const sockaddr *>(&log_socket), sizeof log_socket) == 0) {
        log_fd = fd;
        return 0;
    }
    const int reason = errno;
    close(fd);
    return reason;
}

// "<27>Jan  2 03:04:05 ravod[123]: ". Returns its length.
std::size_t write_head(std::array<char, head_room> &head, int severity) {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    static constexpr const char *months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                             "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const int written = std::snprintf(
        head.data(), head.size(), "<%d>%s %2d %02d:%02d:%02d ravod[%d]: ", LOG_DAEMON | severity, months[local.tm_mon],
        local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, static_cast<int>(getpid()));
    return std::min(static_cast<std::size_t>(std::max(written, 0)), head.size() - 1);
}

int send_once(const char *record, std::size_t length) {
    if (log_fd < 0) return ENOTCONN;
    return send(log_fd, record, length, MSG_NOSIGNAL) < 0 ? errno : 0;
}

// Returns 0 or the reason. A queue that is full is that of a log daemon which is there; anything else may be one that
// went.
int send_record(int severity, std::string_view line) {
    std::array<char, head_room> head;
    std::array<char, head_room + line_room> record;
    const std::size_t head_length = write_head(head, severity);
    const std::size_t text_length = std::min(line.size(), line_room);
    std::memcpy(record.data(), head.data(), head_length);
    std::transform(line.begin(), line.begin() + static_cast<std::ptrdiff_t>(text_length), record.begin() + head_length,
                   [](char c) {
                       const auto byte = static_cast<unsigned char>(c);
                       return (byte < 0x20 && c != '\t') || byte == 0x7F ? '?' : c;
                   });
    const std::size_t length = head_length + text_length;
    const int reason = send_once(record.data(), length);
    if (reason == 0 || reason == EAGAIN || reason == ENOBUFS) return reason;
    const int no_way = connect_log();
    return no_way != 0 ? no_way : send_once(record.data(), length);
}

void tell_fault(int reason) {
    char text[512];
    const int length = std::snprintf(text, sizeof text, "ravod: %s: the log is lost: %s; is a log daemon running?\n",
                                     log_socket.sun_path, strerrordesc_np(reason));
    // Standard error is the last place to turn to; when it is gone too there is nobody left to tell.
    (void)!write(STDERR_FILENO, text, std::min(static_cast<std::size_t>(std::max(length, 0)), sizeof text - 1));
}

// Says how many lines are missing here. Returns 0 or the reason.
int send_lost() {
    char text[64];
    const int length = std::snprintf(text, sizeof text, "%lu lines of the log were lost here", lost);
    return send_record(LOG_WARNING, {text, static_cast<std::size_t>(std::max(length, 0))});
}

}  // namespace

void syslog_open(const char *path) {
    log_socket.sun_family = AF_UNIX;
    std::snprintf(log_socket.sun_path, sizeof log_socket.sun_path, "%s", path);
    lost = 0;
    (void)connect_log();  // without one the first line finds that out, and says so
}

void syslog_close() {
    disconnect();
    lost = 0;
}

void syslog_send(int severity, std::string_view line) {
    int reason = 0;
    if (lost > 0) {
        reason = send_lost();
        if (reason == 0) lost = 0;
    }
    if (reason == 0) reason = send_record(severity, line);
    if (reason != 0 && lost++ == 0) tell_fault(reason);
}

}  // namespace ravo::platform
