// SPDX-License-Identifier: Apache-2.0
// The file has a line a crash, oldest first: time, port, VLAN, client, cause, seconds held, capture ("-": none). Who
// can write into the state folder may have put anything there: every field is judged, and a name leads nowhere else.
#include "books/crash_book.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <ctime>
#include <memory>
#include <optional>
#include <span>
#include <string_view>

#include "base/files.h"
#include "base/hardware_address.h"
#include "books/pcapng.h"

namespace ravo::platform {

namespace {

constexpr std::string_view name_begin = "crash-", name_end = ".pcapng";
constexpr std::size_t longest_name = 64;
constexpr std::size_t longest_file = 4096;
constexpr std::size_t fields = 7;
constexpr std::int64_t latest_time = 4102444800000000;  // 2100

std::string folder_in_use;
std::vector<kept_crash> crashes;  // newest first

// ---- Captures ----

// A name that only a capture of a crash has.
bool is_capture_name(std::string_view name) {
    if (name.size() > longest_name || !name.starts_with(name_begin) || !name.ends_with(name_end)) return false;
    return name.find_first_not_of("0123456789TZ.", name_begin.size()) == name.size() - name_end.size() + 1;
}

struct folder_close {
    void operator()(DIR *folder) const { closedir(folder); }
};

// Names of the captures in the folder, oldest first: they begin with their times.
std::vector<std::string> captures() {
    std::vector<std::string> names;
    const std::unique_ptr<DIR, folder_close> open(opendir(folder_in_use.c_str()));
    if (open == nullptr) return names;
    while (const dirent *entry = readdir(open.get()))
        if (is_capture_name(entry->d_name)) names.emplace_back(entry->d_name);
    std::sort(names.begin(), names.end());
    return names;
}

// "crash-20240607T080910.123456Z.pcapng"
std::string capture_name(std::int64_t time_us) {
    const time_t seconds = time_us / 1000000;
    tm when{};
    gmtime_r(&seconds, &when);
    char text[64];
    const std::size_t length = strftime(text, sizeof text, "%Y%m%dT%H%M%S", &when);
    const std::string fraction = std::to_string(1000000 + time_us % 1000000).substr(1);
    return std::string(name_begin) + std::string(text, length) + "." + fraction + "Z" + std::string(name_end);
}

std::string capture_of(const black_box_crash &crash) {
    std::vector<std::uint8_t> bytes;
    pcapng_begin(bytes);
    const book_tag &carried = crash.entry.tag;
    const std::array<std::uint8_t, 4> tag = {
        static_cast<std::uint8_t>(carried.protocol >> 8), static_cast<std::uint8_t>(carried.protocol),
        static_cast<std::uint8_t>(carried.tci >> 8), static_cast<std::uint8_t>(carried.tci)};
    const std::span<const std::uint8_t> shown =
        carried.protocol != 0 ? std::span<const std::uint8_t>(tag) : std::span<const std::uint8_t>();
    pcapng_frame(bytes, crash.entry.time_us, crash.frame, "the daemon died while it handled this message", shown);
    return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
}

void remove_oldest_captures(std::size_t kept) {
    const std::vector<std::string> names = captures();
    for (std::size_t i = 0; i + kept < names.size(); ++i) (void)unlink((folder_in_use + "/" + names[i]).c_str());
}

// ---- Lines ----

std::string line_of(const kept_crash &crash) {
    return std::to_string(crash.time_us) + " " + std::to_string(crash.port_ifindex) + " " + std::to_string(crash.vlan) +
           " " + mac_text(crash.client) + " " + std::to_string(crash.cause) + " " + std::to_string(crash.held_seconds) +
           " " + (crash.capture.empty() ? "-" : crash.capture) + "\n";
}

template <typename number>
bool read_number(std::string_view text, number most, number *out) {
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), *out);
    return error == std::errc() && stop == text.data() + text.size() && *out >= 0 && *out <= most;
}

std::optional<std::array<std::string_view, fields>> split(std::string_view line) {
    std::array<std::string_view, fields> words;
    for (std::size_t i = 0; i < fields; ++i) {
        const std::size_t end = line.find(' ');
        if ((end == std::string_view::npos) != (i + 1 == fields)) return std::nullopt;
        words[i] = line.substr(0, end);
        if (end != std::string_view::npos) line.remove_prefix(end + 1);
    }
    return words;
}

std::optional<kept_crash> read_line(std::string_view line) {
    const auto words = split(line);
    kept_crash crash;
    unsigned vlan = 0;
    if (!words) return std::nullopt;
    const auto &[time, port, vlan_id, client, cause, held, capture] = *words;
    const std::optional<hardware_address> mac = read_mac(client);
    if (!read_number(time, latest_time, &crash.time_us) || !read_number(port, 0xFFFFU, &crash.port_ifindex) ||
        !read_number(vlan_id, 4094U, &vlan) || !mac || mac_text(*mac) != client ||
        !read_number(cause, black_box_exit, &crash.cause) ||
        !read_number(held, black_box_longest_hold, &crash.held_seconds))
        return std::nullopt;
    if (capture != "-" && !is_capture_name(capture)) return std::nullopt;
    crash.client = *mac;
    crash.vlan = static_cast<std::uint16_t>(vlan);
    if (capture != "-") crash.capture = capture;
    return crash;
}

std::string book_path() {
    return folder_in_use + "/crashes";
}

// Returns 0 or the reason.
int write_book() {
    std::string text;
    for (auto crash = crashes.rbegin(); crash != crashes.rend(); ++crash) text += line_of(*crash);
    return replace_file(book_path(), text, 0600);
}

void put_first(kept_crash crash) {
    crashes.insert(crashes.begin(), std::move(crash));
    if (crashes.size() > crash_book_size) crashes.pop_back();
}

}  // namespace

fault crash_book_open(const std::string &folder) {
    folder_in_use = folder;
    crashes.clear();
    std::string text;
    if (folder.empty()) return {};
    const int failed = read_file(book_path(), longest_file, &text);
    if (failed == ENOENT) return {};
    if (failed != 0)
        return {book_path() + ": earlier crashes are not known, see whether it is a file of the daemon's user: " +
                std::strerror(failed)};
    std::size_t strange = 0;
    for (std::string_view rest = text; !rest.empty();) {
        const std::size_t end = rest.find('\n');
        auto crash = read_line(rest.substr(0, end));
        if (crash)
            put_first(std::move(*crash));
        else if (end != 0)
            ++strange;
        rest = end == std::string_view::npos ? "" : rest.substr(end + 1);
    }
    if (strange == 0) return {};
    return {book_path() + ": lines that tell of no crash are left out: " + std::to_string(strange) +
            "; \"clear ip dhcp relay crashes\" removes it"};
}

std::string crash_book_enter(const black_box_crash &crash) {
    kept_crash row{.time_us = crash.entry.time_us,
                   .port_ifindex = crash.entry.port_ifindex,
                   .vlan = crash.entry.vlan,
                   .client = crash.entry.client,
                   .cause = crash.cause,
                   .held_seconds = crash.held_seconds,
                   .capture = {}};
    if (folder_in_use.empty()) {
        put_first(std::move(row));
        return "there is no state folder to keep it in";
    }
    remove_oldest_captures(crash_book_size - 1);
    const std::string name = capture_name(crash.entry.time_us);
    const std::string path = folder_in_use + "/" + name;
    const int failed = replace_file(path, capture_of(crash), 0600);
    if (failed == 0) row.capture = name;
    put_first(std::move(row));
    // What cannot be written is in this daemon's book all the same.
    if (const int lost = write_book(); failed == 0 && lost != 0)
        return path + " (" + book_path() + " cannot be written: " + std::strerror(lost) + ")";
    return failed == 0 ? path : path + " cannot be written: " + std::strerror(failed);
}

const std::vector<kept_crash> &crash_book_all() {
    return crashes;
}

const std::string &crash_book_folder() {
    return folder_in_use;
}

fault crash_book_clear() {
    crashes.clear();
    if (folder_in_use.empty()) return {};
    int failed = 0;
    std::vector<std::string> names = captures();
    names.emplace_back("crashes");
    for (const std::string &name : names)
        if (unlink((folder_in_use + "/" + name).c_str()) != 0 && errno != ENOENT) failed = errno;
    if (failed == 0) return {};
    return {folder_in_use + ": captures of crashes are still there: " + std::strerror(failed)};
}

}  // namespace ravo::platform
