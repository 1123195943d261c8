// SPDX-License-Identifier: Apache-2.0
// Tables of fixed size: a message that cannot be sent must not cost memory. Rows are looked for one by one, for they
// are few: only destinations with trouble have one.
#include "osal/send_figures.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>

namespace ravo::platform {

namespace {

struct table {
    std::array<send_row, 4096> rows;
    std::size_t used = 0;
};

table servers;
table interfaces;

send_row *find(table &where, std::uint32_t destination) {
    send_row *const end = where.rows.data() + where.used;
    send_row *const found = std::find_if(where.rows.data(), end,
                                         [destination](const send_row &row) { return row.destination == destination; });
    return found == end ? nullptr : found;
}

send_figures figures_in(table &where, std::uint32_t destination) {
    const send_row *found = find(where, destination);
    return found == nullptr ? send_figures{} : found->figures;
}

void count(table &where, std::uint32_t destination, int reason) {
    send_row *row = find(where, destination);
    if (row == nullptr) {
        if (where.used == where.rows.size()) return;
        row = &where.rows[where.used++];
        *row = {.destination = destination, .figures = {}};
    }
    ++(reason == EAGAIN || reason == ENOBUFS ? row->figures.no_room : row->figures.failed);
}

std::vector<send_row> rows_of(const table &where) {
    return {where.rows.begin(), where.rows.begin() + static_cast<std::ptrdiff_t>(where.used)};
}

}  // namespace

send_figures send_figures_of_server(std::uint32_t server) {
    return figures_in(servers, server);
}

send_figures send_figures_of_interface(std::uint32_t switch_ifindex) {
    return figures_in(interfaces, switch_ifindex);
}

std::vector<send_row> send_figures_servers() {
    return rows_of(servers);
}

std::vector<send_row> send_figures_interfaces() {
    return rows_of(interfaces);
}

void send_figures_clear() {
    servers.used = 0;
    interfaces.used = 0;
}

void send_count_server(std::uint32_t server, int reason) {
    count(servers, server, reason);
}

void send_count_interface(std::uint32_t switch_ifindex, int reason) {
    count(interfaces, switch_ifindex, reason);
}

}  // namespace ravo::platform
