// SPDX-License-Identifier: Apache-2.0
// The sum of the parts.
#include "fake_platform.h"

namespace fake {

void reset() {
    clear_scripts();
    reset_cli();
    reset_frame();
    reset_sockets();
    reset_timers();
    reset_memory();
    reset_interfaces();
    reset_outcomes();
    reset_print();
}

void forget() {
    timer_calls.clear();
    socket_calls.clear();
    datagrams.clear();
    frames.clear();
    nsm_calls.clear();
    statuses.clear();
    forget_printed();
    reset_outcomes();
}

std::vector<std::string> leftovers() {
    std::vector<std::string> left;
    for (const timer &entry : timers()) left.push_back("timer " + entry.name);
    for (const reader &entry : readers) left.push_back("reader " + entry.name);
    for (const auto &[fd, entry] : sockets)
        left.push_back("descriptor " + std::to_string(fd) + " of domain " + std::to_string(entry.domain));
    if (blocks_used() > 0) left.push_back(std::to_string(blocks_used()) + " blocks of memory");
    if (trees_used() > 0) left.push_back(std::to_string(trees_used()) + " trees");
    if (bad_frees() > 0) left.push_back(std::to_string(bad_frees()) + " wrong frees");
    return left;
}

}  // namespace fake
