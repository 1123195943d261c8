// The configuration as text and as a file.
#ifndef PLATFORM_LINUX_CONFIGURATION_CONFIGURATION_H
#define PLATFORM_LINUX_CONFIGURATION_CONFIGURATION_H

#include <cstddef>
#include <string>
#include <string_view>

namespace ravo::cli {

// The part of the running configuration that the daemon's sections leave out, as commands; empty when there is nothing.
// daemon_text: those sections, behind which it is replayed.
std::string extra_section(std::string_view daemon_text);

// Replaces a file by this text so that, whatever happens meanwhile, the file holds its old or its new text, whole: mode
// 0600, on the disk before the function returns. What the file held before is kept as PATH.1. A symbolic link is
// followed. Returns an empty string, or one line with the reason; the file is then untouched.
std::string save_file(const std::string &path, std::string_view text);

// Removes a file, or what a symbolic link leads to; PATH.1 stays. Returns an empty string, also when there is no such
// file, or one line with the reason.
std::string erase_file(const std::string &path);

// Why a path may be neither replaced nor erased: something else than an ordinary file is there, such as /dev/null.
// Empty when it may; a path where nothing is may.
std::string not_a_file(const std::string &path);

// Most bytes that a file of commands may have.
inline constexpr std::size_t configuration_limit = 64u << 20;

}  // namespace ravo::cli

#endif
