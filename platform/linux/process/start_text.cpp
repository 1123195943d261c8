// SPDX-License-Identifier: Apache-2.0
#include "start_text.h"

#include <algorithm>

namespace ravo::platform {

namespace {

std::string counted(std::size_t count, const std::string &what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

}  // namespace

std::string start_text(const std::string &path, const start_figures &figures) {
    const std::size_t failed = std::min(figures.failed, figures.commands);
    std::string text = "ravod " RAVO_VERSION ": " + counted(figures.interfaces, "VLAN interface") + ", " +
                       counted(figures.ports, "port") + "; " + counted(figures.commands - failed, "line") + " of " +
                       path + " applied";
    if (failed != 0) text += ", " + std::to_string(failed) + " not";
    return text;
}

}  // namespace ravo::platform
