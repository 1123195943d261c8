// Whole files and parts of paths.
#ifndef PLATFORM_LINUX_BASE_FILES_H
#define PLATFORM_LINUX_BASE_FILES_H

#include <cstddef>
#include <string>
#include <string_view>

namespace ravo::platform {

// Reads a whole file of at most limit bytes. Returns 0, or the reason as errno, *out being unchanged then: EFBIG for a
// larger file, EISDIR for a folder. /dev/null is an empty file; other devices, pipes and sockets are refused (EINVAL).
[[nodiscard]] int read_file(const std::string &path, std::size_t limit, std::string *out);

// Writes all of the text to a descriptor that blocks. Returns 0, or the reason as errno.
[[nodiscard]] int write_all(int fd, std::string_view text);

// The folder that a path names something in: "." for a bare name, "/" for what stands in the root.
[[nodiscard]] std::string folder_of(const std::string &path);

}  // namespace ravo::platform

#endif
