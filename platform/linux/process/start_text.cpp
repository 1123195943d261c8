// SPDX-License-Identifier: Apache-2.0
// A start that fails ends with one line: what the system said, and behind it, found by that text, what helps.
#include "start_text.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace ravo::platform {

namespace {

std::string counted(std::size_t count, const std::string &what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

constexpr struct {
    int error;
    const char *remedy;
} remedies[] = {
    {EPERM, "start it as root or by its unit, and see what forbids it: a container, AppArmor, a filter of calls"},
    {EACCES, "start it as root or by its unit, and see what forbids it: a container, AppArmor, owners and modes"},
    {EAGAIN, "end processes that are not needed, or allow its user more (LimitNPROC=), then start it again"},
    {EMFILE, "allow it more open files (LimitNOFILE=, ulimit -n)"},
    {ENFILE, "raise fs.file-max, the system's limit of open files"},
    {ENOMEM, "free memory, then start it again"},
    {ENOBUFS, "free memory, then start it again"},
    {ENOSPC, "make room on the disk"},
    {EIO, "look after the disk that the file is on"},
};

}  // namespace

std::string start_remedy(std::string_view line) {
    for (const auto &row : remedies)
        if (line.ends_with(std::string(": ") + strerrordesc_np(row.error))) return std::string("; ") + row.remedy;
    return {};
}

std::string start_text(const std::string &path, const start_figures &figures) {
    const std::size_t failed = std::min(figures.failed, figures.commands);
    std::string text = "ravod " RAVO_VERSION ": " + counted(figures.interfaces, "VLAN interface") + ", " +
                       counted(figures.ports, "port") + "; " + counted(figures.commands - failed, "line") + " of " +
                       path + " applied";
    if (failed != 0) text += ", " + std::to_string(failed) + " not";
    return text;
}

}  // namespace ravo::platform
