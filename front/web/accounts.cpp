// SPDX-License-Identifier: Apache-2.0
// The file is read line by line and refused as a whole when one is wrong, so that nobody gets in by half of a file. It
// is replaced by writing another one beside it. Passwords are hashed with yescrypt; checking one for a user who does
// not exist takes as long.
#include "accounts.h"

#include <crypt.h>
#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

#include "reach.h"
#include "request_text.h"

namespace ravo::web {

namespace {

constexpr std::size_t most_accounts = 1000;
constexpr std::size_t largest_file = 256 * 1024;
constexpr const char *method = "$y$";  // yescrypt, with crypt(3)'s own choice of cost
// What a password is compared with when there is no such user: of the same method and cost as a new hash.
constexpr const char *nobody_hash = "$y$j9T$ravoNobodyAtAll.$0123456789abcdefghijklmnopqrstuvwxyzABCDEFGH";

fault fault_at(const std::string &path, std::size_t line, const std::string &what) {
    return {path + ":" + std::to_string(line) + ": " + what};
}

bool is_user_name(std::string_view user) {
    return is_plain_word(user, longest_user) && user.find(':') == std::string_view::npos;
}

bool read_role(std::string_view word, role *out) {
    if (word != "admin" && word != "reader") return false;
    *out = word == "admin" ? role::admin : role::reader;
    return true;
}

// Reads one line. Returns what is wrong with it.
fault read_line(std::string_view line, std::vector<account> *out) {
    const std::size_t first = line.find(':');
    const std::size_t second = first == std::string_view::npos ? first : line.find(':', first + 1);
    if (second == std::string_view::npos) return {"an account is USER:ROLE:HASH"};
    account a;
    a.user = line.substr(0, first);
    a.hash = line.substr(second + 1);
    if (!is_user_name(a.user)) return {"\"" + a.user + "\" is no name of a user"};
    if (!read_role(line.substr(first + 1, second - first - 1), &a.role)) return {"the role must be admin or reader"};
    if (a.hash.size() < 4 || a.hash.front() != '$') return {"the hash is none of crypt(3)'s"};
    if (find_account(*out, a.user) != nullptr) return {"user " + a.user + " has an account already"};
    if (out->size() == most_accounts) return {"more than " + std::to_string(most_accounts) + " accounts"};
    out->push_back(std::move(a));
    return {};
}

fault fault_of_mode(const struct stat &about) {
    if (!S_ISREG(about.st_mode)) return {"is no file"};
    if ((about.st_mode & (S_IRWXO | S_IWGRP)) != 0) return {"may be read by others or written by its group; chmod 640"};
    if (about.st_size > static_cast<off_t>(largest_file)) return {"is too large"};
    return {};
}

// Reads the file's text. A missing file is empty text.
fault read_text(const std::string &path, std::string *text) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0 && errno == ENOENT) return {};
    if (fd < 0) return {path + ": cannot be read: " + client::error_text(errno)};
    struct stat about {};
    fault wrong = fstat(fd, &about) == 0 ? fault_of_mode(about) : fault{client::error_text(errno)};
    std::array<char, 4096> piece;
    ssize_t got = 0;
    while (!wrong && text->size() <= largest_file && (got = read(fd, piece.data(), piece.size())) > 0)
        text->append(piece.data(), static_cast<std::size_t>(got));
    if (got < 0) wrong = {"cannot be read: " + client::error_text(errno)};
    close(fd);
    return wrong ? fault{path + ": " + wrong.text} : wrong;
}

std::string hash_password(std::string_view password) {
    std::array<char, CRYPT_GENSALT_OUTPUT_SIZE> salt{};
    if (crypt_gensalt_rn(method, 0, nullptr, 0, salt.data(), static_cast<int>(salt.size())) == nullptr) return {};
    const auto room = std::make_unique<crypt_data>();
    const char *hash = crypt_rn(std::string(password).c_str(), salt.data(), room.get(), sizeof(crypt_data));
    return hash != nullptr ? hash : "";
}

bool write_fully(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t put = write(fd, text.data(), text.size());
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) return false;
        text.remove_prefix(static_cast<std::size_t>(put));
    }
    return fsync(fd) == 0;
}

// A new file for this text beside the old one, which belongs to the service's group where that exists.
bool write_beside(const std::string &path, const std::string &text) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0640);
    if (fd < 0) return false;
    if (const group *service = getgrnam("ravo-web"); service != nullptr && geteuid() == 0)
        (void)!fchown(fd, static_cast<uid_t>(-1), service->gr_gid);  // without it the service cannot read: it says so
    bool good = fchmod(fd, 0640) == 0 && write_fully(fd, text);
    const int error = errno;
    good = close(fd) == 0 && good;
    errno = error;
    return good;
}

}  // namespace

const char *role_word(role r) {
    return r == role::admin ? "admin" : "reader";
}

fault read_accounts(const std::string &path, std::vector<account> *out) {
    out->clear();
    std::string text;
    fault wrong = read_text(path, &text);
    std::string_view left = text;
    for (std::size_t number = 1; !wrong && !left.empty(); ++number) {
        const std::size_t end = std::min(left.find('\n'), left.size());
        const std::string_view line = left.substr(0, end);
        left.remove_prefix(std::min(end + 1, left.size()));
        if (line.empty() || line.front() == '#') continue;
        if (const fault bad = read_line(line, out)) wrong = fault_at(path, number, bad.text);
    }
    if (wrong) out->clear();
    return wrong;
}

fault write_accounts(const std::string &path, const std::vector<account> &accounts) {
    std::string text =
        "# Accounts of ravo-web: USER:ROLE:HASH. Written by ravo-web --set-password and --account-role.\n";
    for (const account &a : accounts) text += a.user + ":" + role_word(a.role) + ":" + a.hash + "\n";
    const std::string beside = path + ".new";
    if (write_beside(beside, text) && rename(beside.c_str(), path.c_str()) == 0) return {};
    fault wrong{path + ": cannot be written: " + client::error_text(errno)};
    unlink(beside.c_str());
    return wrong;
}

const account *find_account(const std::vector<account> &accounts, std::string_view user) {
    const auto found = std::find_if(accounts.begin(), accounts.end(), [&](const account &a) { return a.user == user; });
    return found == accounts.end() ? nullptr : &*found;
}

fault set_password(std::vector<account> *accounts, std::string_view user, std::string_view password) {
    const std::string name(user);
    if (!is_user_name(user)) return {"\"" + name + "\" is no name of a user: at most 32 letters, digits, . _ - @"};
    if (password.size() < shortest_password)
        return {"the password must have at least " + std::to_string(shortest_password) + " characters"};
    if (password.size() > longest_password)
        return {"the password must not be longer than " + std::to_string(longest_password) + " bytes"};
    if (password.find('\0') != std::string_view::npos) return {"the password must not have a NUL"};
    std::string hash = hash_password(password);
    if (hash.empty() || hash.front() != '$') return {"crypt(3) makes no hash here: " + client::error_text(errno)};
    if (const account *known = find_account(*accounts, user); known != nullptr)
        (*accounts)[static_cast<std::size_t>(known - accounts->data())].hash = std::move(hash);
    else
        accounts->push_back({name, role::admin, std::move(hash)});
    return {};
}

fault set_role(std::vector<account> *accounts, std::string_view user_and_role) {
    const std::size_t mark = user_and_role.find('=');
    role wanted{};
    if (mark == std::string_view::npos || !read_role(user_and_role.substr(mark + 1), &wanted))
        return {"\"" + std::string(user_and_role) + "\" is not USER=admin or USER=reader"};
    const std::string user(user_and_role.substr(0, mark));
    const account *known = find_account(*accounts, user);
    if (known == nullptr) return {"there is no account of user " + user + "; make it with --set-password " + user};
    (*accounts)[static_cast<std::size_t>(known - accounts->data())].role = wanted;
    return {};
}

bool password_fits(const account *who, const std::string &password) {
    const auto room = std::make_unique<crypt_data>();
    const char *setting = who != nullptr ? who->hash.c_str() : nobody_hash;
    const char *hash = crypt_rn(password.c_str(), setting, room.get(), sizeof(crypt_data));
    const bool same = hash != nullptr && same_secret(hash, setting);
    explicit_bzero(room.get(), sizeof(crypt_data));
    return same && who != nullptr;
}

}  // namespace ravo::web
