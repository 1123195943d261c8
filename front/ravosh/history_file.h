// SPDX-License-Identifier: Apache-2.0
// The lines a person typed, kept from one shell to the next.
#ifndef FRONT_RAVOSH_HISTORY_FILE_H
#define FRONT_RAVOSH_HISTORY_FILE_H

#include <cstddef>
#include <string>
#include <vector>

namespace ravo::client {

inline constexpr std::size_t history_kept = 1000;

// The file of this user: .ravo_history in the home folder; empty when there is none.
std::string history_path();

// The last lines of the file, oldest first, at most history_kept. A file that has grown far beyond that is cut.
std::vector<std::string> history_load(const std::string &path);

// Adds a line to the file, which is made with mode 0600. Several shells may do so at once. A file that cannot be
// written is left alone: the line is still in the shell's own history.
void history_append(const std::string &path, const std::string &line);

}  // namespace ravo::client

#endif
