// SPDX-License-Identifier: Apache-2.0
// How a start went, in one line for who reads the log first.
#ifndef RAVO_PLATFORM_START_TEXT_H
#define RAVO_PLATFORM_START_TEXT_H

#include <cstddef>
#include <string>
#include <string_view>

namespace ravo::platform {

struct start_figures {
    std::size_t interfaces = 0;  // VLAN interfaces that are there
    std::size_t ports = 0;       // ports that are there
    std::size_t commands = 0;    // lines of the startup configuration that hold a command
    std::size_t failed = 0;      // of those
};

// "ravod 0.1.0: 2 VLAN interfaces, 1 port; 5 lines of PATH applied, 1 not", without an end.
[[nodiscard]] std::string start_text(const std::string &path, const start_figures &figures);

// What helps against a fault that keeps the daemon from starting, when its line ends with nothing but the kernel's own
// words for it: "; " and the remedy, else an empty text.
[[nodiscard]] std::string start_remedy(std::string_view line);

}  // namespace ravo::platform

#endif
