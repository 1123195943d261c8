// SPDX-License-Identifier: Apache-2.0
// Diagnostic output to a message file: plain writes of bytes put together on the stack, no allocation, no locks. Until
// openMsgfile chooses a file every writer is silent.
#include "output.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "dhcp.h"
#include "trace.h"

int msg_fd = -1;

namespace {

constexpr const char *module_path = "user/src/output";
constexpr int no_file = -1;
constexpr mode_t file_mode = 0400;

// A message file that cannot be written has nowhere to be reported.
void write_all(int fd, const char *text, std::size_t length) {
    (void)!write(fd, text, length);
}

void write_text(const char *text) {
    writeMsgRaw(text, std::strlen(text));
}

const char *peer_text(const struct sockaddr *peer, char *buffer, std::size_t size) {
    const auto *bytes = reinterpret_cast<const unsigned char *>(peer);
    std::size_t offset = sizeof peer->sa_family;
    if (peer->sa_family == AF_INET) offset = offsetof(sockaddr_in, sin_addr);
    if (peer->sa_family == AF_INET6) offset = offsetof(sockaddr_in6, sin6_addr);
    return addressText(peer->sa_family, bytes + offset, buffer, size);
}

// Appends what the message says of itself.
void append_message(char **cursor, std::size_t *room, const std::uint8_t *message, ssize_t length) {
    if (length < static_cast<ssize_t>(DHCP_HEADER_SIZE)) {
        appendFormat(cursor, room, "Broken package with len %lu", static_cast<unsigned long>(length));
        return;
    }
    const std::uint8_t op = dhcp_op(message);
    appendFormat(cursor, room, "%08x ", dhcp_xid(message));
    if (op != opBOOTREQUEST && op != opBOOTREPLY) {
        appendFormat(cursor, room, "<UNKNOWN> (%u), ", op);
        return;
    }
    const bool request = op == opBOOTREQUEST;
    const std::uint8_t *whose = message + (request ? offsetof(dhcp_header, ciaddr) : offsetof(dhcp_header, yiaddr));
    char address[INET6_ADDRSTRLEN];
    appendFormat(cursor, room, request ? "BOOTREQUEST from %s" : "BOOTREPLY to %s",
                 addressText(AF_INET, whose, address, sizeof address));
}

}  // namespace

void openMsgfile(const char *path) {
    if (path == nullptr || *path == '\0') {
        msg_fd = STDERR_FILENO;
        return;
    }
    if (std::strcmp(path, "/dev/null") == 0) {
        msg_fd = no_file;
        return;
    }
    const int fd = Wopen(path, O_WRONLY | O_CREAT | O_APPEND, file_mode);
    msg_fd = Wdup2(fd, STDERR_FILENO);
    ravo_assert(msg_fd == 2, "msg_fd==2", module_path);
    Wclose(fd);
}

void writeMsgTimestamp() {
    if (msg_fd == no_file) return;
    timeval now{};
    gettimeofday(&now, nullptr);
    const auto micro = static_cast<std::uint32_t>(now.tv_usec);
    writeUInt(msg_fd, static_cast<std::uint32_t>(now.tv_sec));
    write_text(".");
    std::uint32_t aux = micro | 1;
    ravo_assert(aux > 0, "aux>0", module_path);
    std::size_t count = 1;
    for (; aux <= 99999; aux *= 10) ++count;
    writeMsgRaw(".000000", count);  // deliberate: a second dot before the padding
    writeUInt(msg_fd, micro);
}

void writeUInt(int fd, std::uint32_t value) {
    char buffer[10];  // digits of 4294967295
    char *ptr = buffer + sizeof buffer;
    do {
        *--ptr = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    ravo_assert(ptr, "ptr", module_path);
    ravo_assert(ptr <= &buffer[sizeof buffer - 1] + 1, "ptr<=&buffer[sizeof(buffer)]", module_path);
    write_all(fd, ptr, static_cast<std::size_t>(buffer + sizeof buffer - ptr));
}

void writeMsgUInt(std::uint32_t value) {
    if (msg_fd != no_file) writeUInt(msg_fd, value);
}

void writeMsgRaw(const char *text, std::size_t length) {
    if (msg_fd != no_file) write_all(msg_fd, text, length);
}

void writeMsgLine(const char *text, std::size_t length) {
    writeMsgTimestamp();
    write_text(": ");
    writeMsgRaw(text, length);
    write_text("\n");
}

const char *addressText(int family, const void *address, char *buffer, std::size_t size) {
    if (inet_ntop(family, address, buffer, static_cast<socklen_t>(size)) != nullptr || size == 0) return buffer;
    constexpr const char unknown[] = "< ???? >";
    const std::size_t length = std::min(sizeof unknown, size) - 1;
    std::memcpy(buffer, unknown, length);
    buffer[length] = '\0';
    return buffer;
}

void appendFormat(char **cursor, std::size_t *room, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int n = std::vsnprintf(*cursor, *room, format, arguments);
    va_end(arguments);
    // deliberate: a result of exactly the room counts as success, although its last character was cut off.
    if (n >= 0 && static_cast<std::size_t>(n) <= *room) {
        *room -= static_cast<std::size_t>(n);
        *cursor += n;
        return;
    }
    write_text("\n\nBuffer not large enough for snprintf(\"");
    write_text(format);
    write_text("\");\nthere are ");
    writeMsgUInt(static_cast<std::uint32_t>(*room));
    write_text(" chars available but ");
    writeMsgUInt(static_cast<std::uint32_t>(n));
    write_text(" required\n\n");
}

void appendText(char *destination, const char *text, std::size_t *room) {
    const std::size_t length = std::strlen(text);
    if (*room <= length) return;
    std::strcat(destination, text);
    *room -= length;
}

void tracePacket(const std::uint8_t *message, ssize_t length, const ravo_pktinfo *info, const struct sockaddr *peer) {
    const int saved = errno;
    writeMsgTimestamp();
    write_text(": ");
    if (length == -1) {
        write_text(std::strerror(saved));
    } else {
        char line[256] = {};
        char *cursor = line;
        std::size_t room = sizeof line - 1;
        char address[INET6_ADDRSTRLEN];
        appendFormat(&cursor, &room, "from %s (", peer_text(peer, address, sizeof address));
        appendFormat(&cursor, &room, "%i, %s, ", info->ipi_ifindex,
                     addressText(AF_INET, &info->ipi_addr, address, sizeof address));
        appendFormat(&cursor, &room, "%s)): ", addressText(AF_INET, &info->ipi_spec_dst, address, sizeof address));
        append_message(&cursor, &room, message, length);
        writeMsgRaw(line, static_cast<std::size_t>(cursor - line));
    }
    write_text("\n");
    errno = saved;
}
