// SPDX-License-Identifier: Apache-2.0
// The books of messages.
//
// A message is in hand from the moment the channel takes it until the next one is taken or the reader's handler
// returned. While it is in hand the relay may say its outcome several times; the last word counts. Only when it is
// closed it is related to its client (client_book.h) and, a reply, to its server (server_book.h). Counters are in
// fixed tables (VLANs) or are made once (ports), the memory of the flight recorder is taken when it is set up.

#include "books/books.h"

#include <algorithm>
#include <utility>

#include "base/clock.h"
#include "books/black_box.h"
#include "books/book_counts.h"
#include "books/book_message.h"
#include "books/books_waiting.h"
#include "books/client_book.h"
#include "books/outcome_words.h"
#include "books/recorder.h"
#include "log/log_subject.h"

namespace ravo::platform {
namespace {

constexpr std::size_t largest_recorder = 1000000;
constexpr std::uint8_t op_reply = 2;

const book_counters nothing;
constexpr book_message blank;

std::uint64_t messages = 0;
std::function<void()> look_listener;
std::span<const std::uint8_t> frame_in_hand;

}  // namespace

bool books_set_recorder(std::size_t size) {
    return recorder_set_size(std::clamp<std::size_t>(size, 1, largest_recorder));
}

void books_forget_messages() {
    recorder_clear();
}

std::size_t books_forget_messages_of(const std::array<std::uint8_t, 6> &client, std::size_t first) {
    return recorder_forget(client, first);
}

std::size_t books_recorder_size() {
    return recorder_size();
}

void books_open(std::uint16_t vlan, std::uint32_t port_ifindex, std::span<const std::uint8_t> frame,
                std::span<const std::uint8_t> message, const book_tag &tag, std::int64_t time_us) {
    books_close();
    book_message &m = next_place();
    m = blank;
    m.entry.number = ++messages;
    m.entry.time_us = time_us != 0 ? time_us : wall_clock_us();
    m.entry.vlan = vlan;
    m.entry.port_ifindex = port_ifindex;
    m.entry.tag = tag;
    message_read(m, frame, message);
    frame_in_hand = frame;
    in_hand = &m;
    black_box_note(m.entry, frame);
    begin_subject(m);
}

void books_drop(relay_outcome outcome, std::uint16_t vlan, std::uint32_t port_ifindex,
                std::span<const std::uint8_t> frame, std::span<const std::uint8_t> message, const book_tag &tag,
                std::int64_t time_us) {
    books_open(vlan, port_ifindex, frame, message, tag, time_us);
    in_hand->entry.outcome = static_cast<std::uint8_t>(outcome);
    books_close();
}

void books_client_vlan(std::uint16_t vlan) {
    if (in_hand != nullptr) in_hand->entry.client_vlan = vlan;
}

bool books_answered_already() {
    if (in_hand == nullptr || in_hand->entry.op != op_reply) return false;
    const book_entry &entry = in_hand->entry;
    const auto asked = clients_find_request(entry.client, entry.xid, entry.type, entry.time_us);
    return asked && asked->answered_before;
}

void books_close() {
    if (in_hand == nullptr) return;
    if (in_hand->waits) {
        black_box_clear();
        log_subject_end({});
        leave_waiting();
        return;
    }
    books_settle_waiting();  // those before it
    book_message &m = *std::exchange(in_hand, nullptr);
    message_relate(m);
    black_box_clear();
    end_subject(m);
    enter(m, frame_in_hand);
}

std::uint32_t books_port_in_hand() {
    return in_hand != nullptr ? in_hand->entry.port_ifindex : 0;
}

std::optional<std::uint32_t> books_xid_in_hand() {
    const bool is_there = in_hand != nullptr && in_hand->entry.has_message;
    return is_there ? std::optional(in_hand->entry.xid) : std::nullopt;
}

relay_outcome books_outcome_in_hand() {
    return in_hand != nullptr ? static_cast<relay_outcome>(in_hand->entry.outcome) : OUTCOME_NONE;
}

void books_count(relay_outcome outcome, std::uint16_t vlan, std::uint32_t port_ifindex, std::uint64_t count) {
    counts_add(vlan, port_ifindex, outcome, count);
}

void books_look() {
    books_settle_waiting();
    if (look_listener) look_listener();
}

void books_on_look(std::function<void()> listener) {
    look_listener = std::move(listener);
}

const book_counters &books_total() {
    return counts_total();
}

const book_counters &books_of_vlan(std::uint16_t vlan) {
    const book_counters *counters = counts_of_vlan(vlan);
    return counters == nullptr ? nothing : *counters;
}

const book_counters &books_of_port(std::uint32_t port_ifindex) {
    const book_counters *counters = counts_known_of_port(port_ifindex);
    return counters == nullptr ? nothing : *counters;
}

std::vector<std::uint16_t> books_vlans() {
    std::vector<std::uint16_t> seen;
    for (std::uint16_t vlan = 1; vlan < counted_vlans; ++vlan)
        if (counts_of_vlan(vlan)->received != 0) seen.push_back(vlan);
    counts_rest();
    return seen;
}

std::vector<std::uint32_t> books_ports() {
    std::vector<std::uint32_t> ports = counts_ports();
    std::erase_if(ports, [](std::uint32_t port) { return books_of_port(port).received == 0; });
    std::sort(ports.begin(), ports.end());
    return ports;
}

void books_clear_counters() {
    counts_clear();
}

void books_each_recorded(const std::function<void(const book_entry &entry)> &visit) {
    recorder_each(visit);
}

std::string_view outcome_word(relay_outcome outcome) {
    return outcome >= 0 && outcome < OUTCOMES ? outcome_words[outcome].word : "unknown";
}

std::string_view outcome_text(relay_outcome outcome) {
    return outcome >= 0 && outcome < OUTCOMES ? outcome_words[outcome].text : "unknown outcome";
}

std::string_view message_type_word(std::uint8_t type) {
    static constexpr std::string_view words[] = {"-",   "DISCOVER", "OFFER",   "REQUEST", "DECLINE",
                                                 "ACK", "NAK",      "RELEASE", "INFORM"};
    return type < std::size(words) ? words[type] : "?";
}

}  // namespace ravo::platform

void outcome_record(relay_outcome outcome) {
    ravo::platform::book_message *const m = ravo::platform::in_hand;
    if (m == nullptr || outcome < 0 || outcome >= OUTCOMES) return;
    if (outcome == OUTCOME_REBROADCAST) m->entry.rebroadcast = true;
    if (outcome == OUTCOME_REBROADCAST || outcome == OUTCOME_DELIVERED) ++m->sent;
    // All its copies may have been refused meanwhile, after they were sent.
    const bool refused = outcome == OUTCOME_RELAYED && m->entry.servers_count == 0 && m->some_were_refused;
    m->entry.outcome = static_cast<std::uint8_t>(refused ? OUTCOME_SEND_FAILED : outcome);
}

void outcome_server(std::uint32_t server) {
    if (ravo::platform::in_hand != nullptr) ravo::platform::message_sent_to(*ravo::platform::in_hand, server);
}
