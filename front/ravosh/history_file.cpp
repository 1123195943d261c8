// SPDX-License-Identifier: Apache-2.0
// One line each, added at the end as it is typed: two shells keep each other's lines, and a shell that is killed loses
// none.
#include "history_file.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace ravo::client {

namespace {

constexpr mode_t only_mine = 0600;

// Links are not followed: a login shell may run for a user whose home others can write to.
int open_private(const std::string &path, int flags) {
    return open(path.c_str(), flags | O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, only_mine);
}

void write_and_close(int fd, const std::string &text) {
    if (fd < 0) return;
    (void)!write(fd, text.data(), text.size());  // a full disk costs a line of history and nothing else
    close(fd);
}

void cut(const std::string &path, const std::vector<std::string> &lines) {
    std::string text;
    for (const std::string &line : lines) text += line + "\n";
    const std::string fresh = path + ".new";
    const int fd = open_private(fresh, O_TRUNC);
    if (fd < 0) return;
    write_and_close(fd, text);
    (void)std::rename(fresh.c_str(), path.c_str());  // else the longer file goes on being used
}

}  // namespace

std::string history_path() {
    const char *home = std::getenv("HOME");
    if (home == nullptr || *home != '/') {
        const passwd *user = getpwuid(getuid());
        home = user == nullptr ? nullptr : user->pw_dir;
    }
    return home == nullptr ? "" : std::string(home) + "/.ravo_history";
}

std::vector<std::string> history_load(const std::string &path) {
    std::vector<std::string> lines;
    struct stat found {};
    if (path.empty() || stat(path.c_str(), &found) != 0 || !S_ISREG(found.st_mode)) return lines;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);)
        if (!line.empty()) lines.push_back(line);
    const bool cut_it = lines.size() > 2 * history_kept;
    if (lines.size() > history_kept) lines.erase(lines.begin(), lines.end() - history_kept);
    if (cut_it) cut(path, lines);
    return lines;
}

void history_append(const std::string &path, const std::string &line) {
    if (!path.empty()) write_and_close(open_private(path, O_APPEND), line + "\n");
}

}  // namespace ravo::client
