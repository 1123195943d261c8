// SPDX-License-Identifier: Apache-2.0
// Lines about a message are written while the relay is still at work on it, and wait for the outcome in a room of fixed
// size; when it is full they go without. A line of level 0 takes the others with it at once: the process may be ending.
#include "log/log_subject.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "base/hardware_address.h"
#include "log/log.h"
#include "log/log_target.h"
#include "port_number.h"

namespace ravo::platform {

namespace {

bool (*ordinary)() = nullptr;  // whether the message in hand is an ordinary one

struct waiting_line {
    int level;
    std::uint32_t length;
};

constexpr std::size_t waiting_room = 16384;

std::string_view user;
std::array<char, waiting_room> waiting;  // records, each with its text behind it

void send_waiting(std::string_view fields) {
    const std::size_t end = std::exchange(log_in_hand.waiting_bytes, 0);
    for (std::size_t at = 0; at < end;) {
        waiting_line line;
        std::memcpy(&line, waiting.data() + at, sizeof line);
        at += sizeof line;
        target_send(line.level, {waiting.data() + at, line.length}, fields);
        at += line.length;
    }
}

// Returns false when there is no room for the line.
bool keep(int level, std::string_view text) {
    const waiting_line line{level, static_cast<std::uint32_t>(text.size())};
    std::size_t &bytes = log_in_hand.waiting_bytes;
    if (bytes + sizeof line + text.size() > waiting.size()) return false;
    std::memcpy(waiting.data() + bytes, &line, sizeof line);
    std::copy_n(text.data(), text.size(), waiting.data() + bytes + sizeof line);
    bytes += sizeof line + text.size();
    return true;
}

void add(std::string *out, const char *name, std::string_view value) {
    out->append(name).append("=").append(value).append("\n");
}

}  // namespace

log_hand log_in_hand;

void log_send_waiting(std::string_view outcome) {
    send_waiting(log_fields(log_in_hand.about, outcome, user));
}

log_user::log_user(std::string_view name) : before_(std::exchange(user, name)) {}

log_user::~log_user() {
    user = before_;
}

void log_set_ordinary(bool (*is_ordinary)()) {
    ordinary = is_ordinary;
}

bool log_is_ordinary() {
    return ordinary != nullptr && ordinary();
}

std::string_view log_user_now() {
    return user;
}

std::string log_fields(const log_subject &about, std::string_view outcome, std::string_view who) {
    std::string out;
    if (about.vlan != 0) add(&out, "RAVO_VLAN", std::to_string(about.vlan));
    char port[PORT_NUMBER_TEXT_SIZE];
    if (about.port_ifindex != 0) add(&out, "RAVO_PORT", port_number_text(about.port_ifindex, port));
    if (about.has_client) add(&out, "RAVO_CLIENT", mac_text(about.client));
    if (!outcome.empty()) add(&out, "RAVO_OUTCOME", outcome);
    if (!who.empty()) add(&out, "RAVO_USER", who);
    return out;
}

void log_send_with_fields(int level, std::string_view line) {
    if (level == log_level_start) {
        send_waiting({});
        target_send(level, line, {});
        return;
    }
    if (log_in_hand.is_one && keep(level, line)) return;
    const std::string fields = log_fields(log_in_hand.about, {}, user);
    send_waiting(fields);
    target_send(level, line, fields);
}

}  // namespace ravo::platform
