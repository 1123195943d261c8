// Whole files are read at once, up to a limit that their reader sets: configuration, descriptions, saved state.
#include "base/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "base/owners.h"

namespace ravo::platform {

namespace {

bool is_null_device(const struct stat &status) {
    return S_ISCHR(status.st_mode) && status.st_rdev == makedev(1, 3);
}

}  // namespace

int read_file(const std::string &path, std::size_t limit, std::string *out) {
    // A pipe in the file's place must not hold the daemon up.
    const descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file) return errno;
    struct stat status;
    if (fstat(file.get(), &status) != 0) return errno;
    if (S_ISDIR(status.st_mode)) return EISDIR;
    if (is_null_device(status)) {
        out->clear();
        return 0;
    }
    if (!S_ISREG(status.st_mode)) return EINVAL;
    std::string text;
    char room[65536];
    for (;;) {
        const ssize_t got = read(file.get(), room, sizeof room);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return errno;
        if (got == 0) break;
        text.append(room, static_cast<std::size_t>(got));
        if (text.size() > limit) return EFBIG;
    }
    *out = std::move(text);
    return 0;
}

int write_all(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t done = write(fd, text.data(), text.size());
        if (done < 0 && errno == EINTR) continue;
        if (done < 0) return errno;
        text.remove_prefix(static_cast<std::size_t>(done));
    }
    return 0;
}

std::string folder_of(const std::string &path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace ravo::platform
