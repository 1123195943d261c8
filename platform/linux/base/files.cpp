// SPDX-License-Identifier: Apache-2.0
// Whole files are read at once, up to a limit that their reader sets: configuration, descriptions, saved state. A file
// is never written in place: its successor is written beside it, brought to the disk, and takes its name in one step;
// then the folder is brought to the disk too. Whoever is killed on the way leaves at most a file ".new" behind, which
// the next one takes over.
#include "base/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

#include "base/owners.h"

namespace ravo::platform {

namespace {

bool is_null_device(const struct stat &status) {
    return S_ISCHR(status.st_mode) && status.st_rdev == makedev(1, 3);
}

int write_new(const std::string &path, std::string_view text, mode_t mode) {
    if (unlink(path.c_str()) != 0 && errno != ENOENT) return errno;
    descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode));
    if (!file) return errno;
    const int failed = write_all(file.get(), text);
    if (failed != 0) return failed;
    if (fsync(file.get()) != 0) return errno;
    // Some file systems report only at the end what they could not write.
    return close(file.release()) == 0 ? 0 : errno;
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

int sync_folder_of(const std::string &path) {
    descriptor folder(open(folder_of(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder) return errno;
    // Some file systems cannot do this for a folder; those have nothing to bring to the disk.
    return fsync(folder.get()) == 0 || errno == EINVAL ? 0 : errno;
}

int replace_file(const std::string &path, std::string_view text, mode_t mode) {
    const std::string successor = path + ".new";
    int failed = write_new(successor, text, mode);
    if (failed == 0 && rename(successor.c_str(), path.c_str()) != 0) failed = errno;
    if (failed != 0) {
        (void)unlink(successor.c_str());  // the reason reported is why this failed, not why that did
        return failed;
    }
    return sync_folder_of(path);
}

std::string real_path(const std::string &path) {
    const std::unique_ptr<char, decltype(&std::free)> real(realpath(path.c_str(), nullptr), &std::free);
    return real == nullptr ? std::string() : real.get();
}

bool is_below(const std::string &path, const std::string &folder) {
    if (folder == "/") return path.starts_with('/');
    return path == folder || (path.starts_with(folder) && path[folder.size()] == '/');
}

std::string behind_links(std::string path) {
    constexpr int most_links = 40;  // then opening the file fails too
    char target[PATH_MAX];
    for (int i = 0; i < most_links; ++i) {
        const ssize_t length = readlink(path.c_str(), target, sizeof target);
        if (length <= 0 || static_cast<std::size_t>(length) == sizeof target) break;
        const std::string text(target, static_cast<std::size_t>(length));
        path = text.front() == '/' ? text : folder_of(path) + "/" + text;
    }
    return path;
}

std::string folder_of(const std::string &path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace ravo::platform
