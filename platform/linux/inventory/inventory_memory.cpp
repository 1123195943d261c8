// SPDX-License-Identifier: Apache-2.0
// The file is written whole whenever a port got a number, and at the daemon's end, for the times since when devices are
// away.
#include "inventory/inventory_memory.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include "base/clock.h"
#include "base/files.h"
#include "log/log.h"

namespace ravo::platform {

namespace {

constexpr std::size_t most_bytes = 4 * 1024 * 1024;  // all ports there can be take half of it
constexpr std::size_t most_faults = 10;

bool failed_last = false;

}  // namespace

void ports_recall(port_table *table, const std::string &path) {
    std::string text;
    const int failed = read_file(path, most_bytes, &text);
    if (failed == ENOENT) return;
    if (failed != 0) {
        log_line(log_level_error, "%s: the numbers of ports cannot be read, they are given anew: %s", path.c_str(),
                 std::strerror(failed));
        return;
    }
    const std::vector<std::string> faults = port_table_read(table, text, wall_clock_us());
    for (std::size_t i = 0; i < faults.size() && i < most_faults; ++i)
        log_line(log_level_error, "%s:%s; the line is left out", path.c_str(), faults[i].c_str());
    if (faults.size() > most_faults)
        log_line(log_level_error, "%s: %zu lines more are left out", path.c_str(), faults.size() - most_faults);
}

void ports_remember(port_table *table, const std::string &path) {
    if (path.empty() || !table->changed) return;
    constexpr mode_t mode = 0640;
    const int failed = replace_file(path, port_table_text(*table), mode);
    if (failed == 0) table->changed = false;
    if (std::exchange(failed_last, failed != 0) || failed == 0) return;
    log_line(log_level_error, "%s: the numbers of ports cannot be written: %s", path.c_str(), std::strerror(failed));
}

}  // namespace ravo::platform
