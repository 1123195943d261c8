// SPDX-License-Identifier: Apache-2.0
// The HTTP library reports the end of a connection only while a request of it is being answered. So each row has the
// kernel's cookie of its socket: a descriptor that has another one, or none, belongs to somebody else by now, and its
// row is forgotten.
#include "connections.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>

namespace ravo::web {

namespace {

using clock = std::chrono::steady_clock;

// 0 when the descriptor is no socket any more.
std::uint64_t cookie_of(int fd) {
    std::uint64_t cookie = 0;
    socklen_t size = sizeof cookie;
    return getsockopt(fd, SOL_SOCKET, SO_COOKIE, &cookie, &size) == 0 ? cookie : 0;
}

connection_row *find_row(connection_table *table, int fd) {
    const auto found =
        std::find_if(table->rows.begin(), table->rows.end(), [&](const connection_row &row) { return row.fd == fd; });
    return found == table->rows.end() ? nullptr : &*found;
}

void forget_gone(connection_table *table) {
    std::erase_if(table->rows, [](const connection_row &row) { return cookie_of(row.fd) != row.cookie; });
}

bool is_full(const connection_table &table, const std::string &address) {
    if (table.rows.size() >= most_connections) return true;
    const auto same = std::count_if(table.rows.begin(), table.rows.end(),
                                    [&](const connection_row &row) { return row.address == address; });
    return static_cast<std::size_t>(same) >= most_of_address && !is_loopback(address);
}

}  // namespace

std::string peer_address(int fd) {
    sockaddr_storage peer{};
    socklen_t size = sizeof peer;
    char text[INET6_ADDRSTRLEN] = "";
    if (getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &size) != 0) return {};
    if (peer.ss_family == AF_INET) {
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in &>(peer).sin_addr, text, sizeof text);
    } else if (peer.ss_family == AF_INET6) {
        const in6_addr &address = reinterpret_cast<const sockaddr_in6 &>(peer).sin6_addr;
        if (IN6_IS_ADDR_V4MAPPED(&address))
            inet_ntop(AF_INET, address.s6_addr + 12, text, sizeof text);
        else
            inet_ntop(AF_INET6, &address, text, sizeof text);
    }
    return text;
}

bool is_loopback(const std::string &address) {
    return address.starts_with("127.") || address == "::1";
}

void connection_begins(connection_table *table, int fd) {
    const std::string address = peer_address(fd);
    if (is_full(*table, address)) forget_gone(table);
    if (is_full(*table, address)) {
        ++table->refused;
        (void)shutdown(fd, SHUT_RDWR);  // the HTTP library sees its end and closes it
        return;
    }
    std::erase_if(table->rows, [&](const connection_row &row) { return row.fd == fd; });
    table->rows.push_back({fd, cookie_of(fd), address, clock::now()});
}

void connection_serves(connection_table *table, int fd, bool stream) {
    connection_row *row = find_row(table, fd);
    if (row == nullptr) return;
    row->serving = true;
    row->stream = stream;
    row->since = clock::now();
}

void connection_waits(connection_table *table, int fd) {
    connection_row *row = find_row(table, fd);
    if (row == nullptr) return;
    row->serving = false;
    row->stream = false;
    row->since = clock::now();
}

void connections_look(connection_table *table, clock::time_point now) {
    forget_gone(table);
    for (const connection_row &row : table->rows) {
        if (row.stream || now - row.since < (row.serving ? answer_time : request_time)) continue;
        ++table->slow;
        (void)shutdown(row.fd, SHUT_RDWR);
    }
}

void raise_descriptor_limit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= descriptors_wanted) return;
    limit.rlim_cur = std::min<rlim_t>(descriptors_wanted, limit.rlim_max);
    (void)setrlimit(RLIMIT_NOFILE, &limit);  // the usual limit does, but for many connections at once
}

}  // namespace ravo::web
