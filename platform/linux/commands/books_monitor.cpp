// SPDX-License-Identifier: Apache-2.0
// Commands that show each message as soon as the relay has dealt with it, and that write them to a capture file.
//
// The command's handler begins a watch on the books and returns; the session stays in the command until it is
// interrupted, or until the capture is full or cannot be written. All of the watch belongs to the session: it ends with
// it, however that ends.
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "books/books.h"
#include "books/pcapng.h"
#include "cli/command_row.h"
#include "cli/help_texts.h"
#include "cli/session.h"
#include "commands/books_json.h"
#include "commands/books_text.h"
#include "commands/commands.h"
#include "log/log.h"

namespace ravo::cli {

namespace {

constexpr std::uint64_t megabyte = 1000000;
constexpr std::uint64_t default_limit = 100 * megabyte;

struct monitor_request {
    std::optional<hardware_address> client;
    std::uint16_t vlan = 0;
    std::uint32_t port_ifindex = 0;
    std::string file;  // empty: to the session
    std::uint64_t limit = default_limit;
    bool as_json = false;
};

struct message_monitor {
    session *owner = nullptr;
    monitor_request wanted;
    int watcher = 0;
    platform::pcapng_file capture;
    std::uint64_t frames = 0;
};

bool is_wanted(const monitor_request &wanted, const platform::book_entry &entry) {
    if (wanted.client && entry.client != *wanted.client) return false;
    if (wanted.vlan != 0 && vlan_of(entry) != wanted.vlan) return false;
    return wanted.port_ifindex == 0 || entry.port_ifindex == wanted.port_ifindex;
}

std::string captured_text(const message_monitor &monitor) {
    return std::to_string(monitor.frames) + " messages in " + monitor.wanted.file + "\n";
}

// The capture ends by itself. The watch is taken off first: what happens now may reach the books.
void give_up(message_monitor &monitor, const std::string &why, int result) {
    platform::books_unwatch(monitor.watcher);
    session &s = *monitor.owner;
    (void)stream_emit(s, why + captured_text(monitor));  // a session that is gone is deleted soon
    stream_finish(s, result);
}

// The tag as it was in the frame; nothing without one.
std::vector<std::uint8_t> tag_bytes(const platform::book_tag &tag) {
    if (tag.protocol == 0) return {};
    const auto byte = [](int value) { return static_cast<std::uint8_t>(value); };
    return {byte(tag.protocol >> 8), byte(tag.protocol), byte(tag.tci >> 8), byte(tag.tci)};
}

void capture(message_monitor &monitor, const platform::book_entry &entry, std::span<const std::uint8_t> frame) {
    if (monitor.capture.size() + frame.size() > monitor.wanted.limit)
        return give_up(monitor, "The capture has reached its size\n", 0);
    if (const fault wrong = monitor.capture.write(entry.time_us, frame, entry_line(entry), tag_bytes(entry.tag)))
        return give_up(monitor, "% " + wrong.text + "\n", 1);
    ++monitor.frames;
}

void take(message_monitor &monitor, const platform::book_entry &entry, std::span<const std::uint8_t> frame) {
    if (!is_wanted(monitor.wanted, entry)) return;
    if (!monitor.wanted.file.empty()) return capture(monitor, entry, frame);
    const std::string text = monitor.wanted.as_json ? message_json_line(entry) : entry_line(entry) + "\n";
    (void)stream_emit(*monitor.owner, text);  // a session that is gone is deleted soon
}

int stop(message_monitor &monitor) {
    platform::books_unwatch(monitor.watcher);
    if (!monitor.wanted.file.empty()) (void)emit(*monitor.owner, captured_text(monitor));
    return 0;
}

// Reads the optional words, each with its value behind it. The fault, if any: the line that says what is wrong.
fault read_request(int argc, char **argv, monitor_request *out) {
    for (int i = 0; i + 1 < argc; i += 2) {
        const std::string_view word = argv[i], value = argv[i + 1];
        if (word == "mac") {
            out->client = read_mac(value);
            if (!out->client) return {bad_mac_line(value)};
        } else if (word == "vlan") {
            out->vlan = static_cast<std::uint16_t>(std::atoi(argv[i + 1]));
        } else if (word == "port") {
            const auto port = read_port_name(value);
            if (!port) return {bad_port_line(value)};
            out->port_ifindex = *port;
        } else if (word == "pcap") {
            out->file = value;
        } else if (word == "size") {
            out->limit = static_cast<std::uint64_t>(std::atoi(argv[i + 1])) * megabyte;
        }
    }
    return {};
}

int begin(struct cli *cli, monitor_request wanted) {
    session &s = session_of(cli);
    const auto monitor = std::make_shared<message_monitor>();
    monitor->owner = &s;
    monitor->wanted = std::move(wanted);
    if (!s.output.stream_end || session_streaming(s))
        return books_refuse(cli, "% This session cannot show messages as they come\n");
    if (!monitor->wanted.file.empty()) {
        if (const fault wrong = monitor->capture.open(monitor->wanted.file))
            return books_refuse(cli, "% " + wrong.text + "\n");
        platform::log_line(platform::log_level_warning, "messages are captured in %s for user %s",
                           monitor->wanted.file.c_str(), s.user.c_str());
    }
    // Each of the two keeps the monitor as long as it may be called.
    monitor->watcher =
        platform::books_watch([monitor](const platform::book_entry &entry, std::span<const std::uint8_t> frame) {
            take(*monitor, entry, frame);
        });
    (void)stream_begin(s, [monitor] { return stop(*monitor); });  // asked above whether it can
    return 0;
}

int monitor_to_session(struct cli *cli, int argc, char **argv, bool as_json) {
    monitor_request wanted;
    wanted.as_json = as_json;
    const fault wrong = read_request(argc, argv, &wanted);
    return wrong ? books_refuse(cli, wrong.text) : begin(cli, std::move(wanted));
}

int monitor_messages(struct cli *cli, int argc, char **argv) {
    return monitor_to_session(cli, argc, argv, /*as_json=*/false);
}

// Each message is a document, so nothing is written through what the caller offers for one.
int monitor_as_json(struct cli *cli, int argc, char **argv, json_writer & /*out*/) {
    return monitor_to_session(cli, argc, argv, /*as_json=*/true);
}

// "pcap FILE" is no option of this command, so that FILE comes without its keyword.
int monitor_to_file(struct cli *cli, int argc, char **argv) {
    monitor_request wanted;
    int file = 0;
    while (file + 1 < argc && (std::string_view(argv[file]) == "mac" || std::string_view(argv[file]) == "vlan" ||
                               std::string_view(argv[file]) == "port"))
        file += 2;
    wanted.file = argv[file];
    fault wrong = read_request(file, argv, &wanted);
    if (!wrong) wrong = read_request(argc - file - 1, argv + file + 1, &wanted);
    return wrong ? books_refuse(cli, wrong.text) : begin(cli, std::move(wanted));
}

constexpr char monitor_word[] = "Show what happens as it happens";
constexpr char relay_word[] = "Messages of the DHCP relay, until Ctrl-C";
constexpr char mac_word[] = "Of one client";
constexpr char address_word[] = "Its hardware address";
constexpr char vlan_word[] = "That came in on one VLAN";
constexpr char port_word[] = "That came in on one port";

constexpr command_row rows[] = {
    {.privilege = viewer_privilege,
     .text = "monitor ip dhcp relay [mac MAC] [vlan <1-4094>] [port PORT]",
     .help = {monitor_word, help::ip, help::dhcp, relay_word, mac_word, address_word, vlan_word, help::vlan_id,
              port_word, help::port},
     .handler = monitor_messages,
     .traits = {.effect = command_effect::looks, .json = monitor_as_json, .schema = "monitor"}},
    {.text = "monitor ip dhcp relay [mac MAC] [vlan <1-4094>] [port PORT] pcap FILE [size <1-10000>]",
     .help = {monitor_word, help::ip, help::dhcp, relay_word, mac_word, address_word, vlan_word, help::vlan_id,
              port_word, help::port, "Write a capture file on the daemon's host",
              "Its whole path, ending in .pcapng or .pcap", "End at a size; without it, at 100 megabytes", "Megabytes"},
     .handler = monitor_to_file,
     .traits = {.effect = command_effect::daemon}},
};

}  // namespace

void install_monitor_commands(cli_tree *tree) {
    install_rows(tree, rows);
}

}  // namespace ravo::cli
