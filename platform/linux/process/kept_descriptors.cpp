// SPDX-License-Identifier: Apache-2.0
// Messages have the form that systemd's store takes, and descriptors are handed on as systemd does: from number 3 on,
// with their names in LISTEN_FDNAMES. So the daemon needs to know one way alone.
#include "process/kept_descriptors.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <utility>

namespace ravo::platform {

namespace {

constexpr int first_given = 3;
constexpr std::size_t longest_name = 255;

// What is behind a word at the beginning of a line; nothing when no line begins so.
std::string_view value_of(std::string_view message, std::string_view word) {
    while (!message.empty()) {
        const std::size_t end = std::min(message.find('\n'), message.size());
        const std::string_view line = message.substr(0, end);
        if (line.substr(0, word.size()) == word) return line.substr(word.size());
        message.remove_prefix(std::min(end + 1, message.size()));
    }
    return {};
}

// Names are passed on with colons between them.
bool is_name(std::string_view text) {
    const auto is_plain = [](unsigned char letter) { return std::isgraph(letter) != 0 && letter != ':'; };
    return !text.empty() && text.size() <= longest_name && std::all_of(text.begin(), text.end(), is_plain);
}

}  // namespace

void kept_descriptors::take(std::string_view message, std::vector<descriptor> came) {
    const std::string_view name = value_of(message, "FDNAME=");
    if (!is_name(name)) return;
    const bool is_new = value_of(message, "FDSTORE=") == "1" && came.size() == 1;
    if (!is_new && value_of(message, "FDSTOREREMOVE=") != "1") return;
    std::erase_if(kept_, [&](const named &each) { return each.name == name; });
    if (is_new && kept_.size() < most) kept_.push_back({std::string(name), std::move(came.front())});
}

// First all go where none is in the way of another; those copies are closed when the program begins.
int kept_descriptors::hand_over(int behind) const {
    const int end = first_given + static_cast<int>(kept_.size());
    std::vector<int> copies;
    for (const named &each : kept_) copies.push_back(fcntl(each.fd.get(), F_DUPFD_CLOEXEC, end + 1));
    copies.push_back(fcntl(behind, F_DUPFD_CLOEXEC, end + 1));
    std::string names;
    for (const named &each : kept_) names += (names.empty() ? "" : ":") + each.name;
    int number = first_given;
    for (const int copy : copies)
        if (copy < 0 || dup2(copy, number++) < 0) return -1;
    if (kept_.empty()) return end;
    const bool told = setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1) == 0 &&
                      setenv("LISTEN_FDS", std::to_string(kept_.size()).c_str(), 1) == 0 &&
                      setenv("LISTEN_FDNAMES", names.c_str(), 1) == 0;
    return told ? end : -1;
}

}  // namespace ravo::platform
