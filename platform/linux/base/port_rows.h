// SPDX-License-Identifier: Apache-2.0
// Rows of a table by port: small numbers, given to ports as they come up, found without searching.
#ifndef PLATFORM_LINUX_BASE_PORT_ROWS_H
#define PLATFORM_LINUX_BASE_PORT_ROWS_H

#include <array>
#include <cstddef>
#include <cstdint>

#include "port_number.h"

namespace ravo::platform {

// Row 0 is for what came in on no port. Ports keep their rows. One that is put down statically takes no memory beyond
// the ports it has seen.
struct port_rows {
    std::array<std::uint16_t, PORT_NUMBER_LAST + 1> row_of{};  // by port number, 0: none yet
    std::uint16_t rows = 1;                                    // given out, row 0 included
};

// The row of a port, 0 when it has none.
inline std::uint16_t port_row_known(const port_rows &table, std::uint32_t port_ifindex) {
    return port_ifindex < table.row_of.size() ? table.row_of[port_ifindex] : std::uint16_t{0};
}

// The row of a port, a new one when it has none and there is room for another. most: rows there is room for.
inline std::uint16_t port_row(port_rows &table, std::uint32_t port_ifindex, std::size_t most) {
    const std::uint16_t known = port_row_known(table, port_ifindex);
    if (known != 0 || port_ifindex == 0 || port_ifindex >= table.row_of.size() || table.rows >= most) return known;
    return table.row_of[port_ifindex] = table.rows++;
}

}  // namespace ravo::platform

#endif
