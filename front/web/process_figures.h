// SPDX-License-Identifier: Apache-2.0
// What the kernel says about another process.
#ifndef FRONT_WEB_PROCESS_FIGURES_H
#define FRONT_WEB_PROCESS_FIGURES_H

#include <optional>
#include <string>

namespace ravo::web {

struct process_figures {
    std::optional<double> cpu_seconds;
    std::optional<double> start_seconds;  // since 1970
    std::optional<double> resident_bytes;
    std::optional<double> virtual_bytes;
    std::optional<double> threads;
    std::optional<double> open_descriptors;  // only of a process that is ours to look into
    std::optional<double> most_descriptors;
};

// Reads /proc below root for a process; what cannot be read is left out.
process_figures read_process(int pid, const std::string &root = "/proc");

}  // namespace ravo::web

#endif
