// SPDX-License-Identifier: Apache-2.0
// Whole files and parts of paths.
#ifndef PLATFORM_LINUX_BASE_FILES_H
#define PLATFORM_LINUX_BASE_FILES_H

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace ravo::platform {

// Reads a whole file of at most limit bytes. Returns 0, or the reason as errno, *out being unchanged then: EFBIG for a
// larger file, EISDIR for a folder. /dev/null is an empty file; other devices, pipes and sockets are refused (EINVAL).
[[nodiscard]] int read_file(const std::string &path, std::size_t limit, std::string *out);

// Writes all of the text to a descriptor that blocks. Returns 0, or the reason as errno.
[[nodiscard]] int write_all(int fd, std::string_view text);

// Replaces a file by this text so that, whatever happens meanwhile, the file holds its old or its new text, whole, and
// has it on the disk before the function returns. Its successor is written beside it, as PATH.new, and takes its name.
// Returns 0, or the reason as errno; the file is then untouched.
[[nodiscard]] int replace_file(const std::string &path, std::string_view text, mode_t mode);

// Brings to the disk what was created, renamed or removed in the folder of a path. Returns 0, or the reason as errno.
[[nodiscard]] int sync_folder_of(const std::string &path);

// The folder that a path names something in: "." for a bare name, "/" for what is in the root.
[[nodiscard]] std::string folder_of(const std::string &path);

// The whole path of what a path names, all links followed; empty when there is none, with the reason in errno.
[[nodiscard]] std::string real_path(const std::string &path);

// Tells whether a whole path names a folder or something in it, however deep.
[[nodiscard]] bool is_below(const std::string &path, const std::string &folder);

// The file that a path leads to over symbolic links, which need not exist.
[[nodiscard]] std::string behind_links(std::string path);

}  // namespace ravo::platform

#endif
