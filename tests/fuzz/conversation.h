// SPDX-License-Identifier: Apache-2.0
// A conversation of clients and servers through a relay, held against the model of it: requests, the servers' replies
// to what they got, whole messages of any bytes, time that passes and settings that change, in any order.
//
// The input's first eight bytes are the relay's configuration (model_world.h); then come events of six bytes, and so
// many bytes of data as their last two say. How messages get to the relay is the fuzzer's affair, its carrier:
//
//   std::optional<arrival> carry(const arrival &in)   hands a message over; what the relay then got, if anything
//   std::optional<arrival> carry_raw(const event &)   the same for an event that only the carrier understands
//   const seen &sent() const                          what has left the relay for it
//   void spoil(const poison::pattern &with)           fills what a stray byte could come from, before each message
//   bool pass(unsigned seconds)                       lets time pass; false where it cannot
//   static constexpr bool guarded                     what would end the relay is kept from it
#ifndef FUZZ_CONVERSATION_H
#define FUZZ_CONVERSATION_H

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "model_world.h"
#include "packet_bytes.h"
#include "pieces.h"
#include "poison.h"

namespace conversation {

using model_world::bytes;
using relay_model::arrival;

inline constexpr std::size_t head_size = 6;
inline constexpr std::size_t most_events = 24;
inline constexpr std::size_t headers_size = 42;  // of a frame, before its message

struct event {
    std::uint8_t kind, a, b, c;
    bytes data;
};

// What has left the relay: requests with the addresses of their servers, and frames with their VLANs.
struct seen {
    std::vector<relay_model::datagram> datagrams = {};
    std::vector<relay_model::frame> frames = {};
};

[[noreturn]] inline void fail(const std::string &what) {
    std::fprintf(stderr, "conversation: %s\n", what.c_str());
    std::abort();
}

inline std::vector<event> read_events(const std::uint8_t *data, std::size_t size) {
    std::vector<event> events;
    for (std::size_t at = 0; at + head_size <= size && events.size() < most_events;) {
        const std::uint8_t *head = data + at;
        at += head_size;
        const std::size_t length = std::min<std::size_t>(head[4] + head[5] % 4 * 256U, size - at);
        events.push_back({head[0], head[1], head[2], head[3], bytes(data + at, data + at + length)});
        at += length;
    }
    return events;
}

template <typename rows>
void compare_rows(const rows &expected, const rows &sent, const char *what) {
    if (sent.size() != expected.size())
        fail(std::to_string(sent.size()) + " " + what + ", not " + std::to_string(expected.size()));
}

inline void compare(const relay_model::answer &expected, const seen &sent) {
    compare_rows(expected.datagrams, sent.datagrams, "requests to servers");
    for (std::size_t i = 0; i < expected.datagrams.size(); ++i) {
        if (sent.datagrams[i].server != expected.datagrams[i].server) fail("a request goes to another server");
        if (sent.datagrams[i] != expected.datagrams[i])
            fail("another request: " + packet::hex_diff(expected.datagrams[i].message, sent.datagrams[i].message));
    }
    compare_rows(expected.frames, sent.frames, "frames");
    for (std::size_t i = 0; i < expected.frames.size(); ++i) {
        if (sent.frames[i].vlan != expected.frames[i].vlan) fail("a frame leaves by another interface");
        if (sent.frames[i] != expected.frames[i])
            fail("another frame: " + packet::hex_diff(expected.frames[i].octets, sent.frames[i].octets));
    }
}

// One conversation, from its beginning.
template <typename carrier>
class talk {
  public:
    talk(const std::uint8_t *choice, const poison::pattern &pattern, carrier *by)
        : model_(model_world::begin(choice)), pattern_(pattern), by_(by) {}

    void hold(const event &what) {
        switch (what.kind % 8) {
            case 0:
                return request(what);
            case 1:
                return raw(what);
            case 2:
                return hand_in({what.data, destination(what.b), vlan(what.a), model_world::port_of(what.c)});
            case 3:
            case 4:
                return reply(what);
            case 5:
                return hand_in(last_);
            case 6:
                if (by_->pass(what.a * 2U)) model_.pass(what.a * 2U);
                return;
            default:
                model_.with = model_world::settings_of(what.a, what.b, what.c);
                return model_world::configure(model_.with);
        }
    }

    void finish() const {
        const std::size_t open = model_world::open_transactions();
        if (open != model_.open())
            fail(std::to_string(open) + " transactions open, not " + std::to_string(model_.open()));
    }

  private:
    // Most often a VLAN that is there.
    std::uint16_t vlan(std::uint8_t choice) const {
        return choice >= 240 ? choice : model_.interfaces[choice % 3].vlan;
    }
    bytes destination(std::uint8_t choice) const {
        if (choice % 4 == 0) return bytes(4, 255);
        return choice % 4 == 3 ? model_world::other_relay() : model_.interfaces[choice / 4 % 3].address;
    }

    void request(const event &what) {
        const relay_model::interface &via = model_.interfaces[what.b % 3];
        const bytes message = model_world::request_of(model_world::xid_of(what.a), what.data, via.address);
        const bytes to = (what.b & 0x80) != 0 ? destination(what.b / 3) : bytes(4, 255);
        hand_in({message, to, via.vlan, model_world::port_of(what.c)});
    }

    void reply(const event &what) {
        if (sent_.empty()) return;
        const bytes &got = sent_[what.a % sent_.size()];
        const bytes giaddr = packet::part_of(got, 24, 4);
        const bytes usual = giaddr == bytes(4) ? bytes(4, 255) : giaddr;
        const bytes to = (what.b & 0x80) != 0 ? destination(what.b) : usual;
        hand_in({model_world::reply_of(got, what.c, what.data), to, vlan(what.b), model_world::port_of(what.b)});
    }

    void raw(const event &what) {
        by_->spoil(pattern_);
        judge(by_->carry_raw(what));
    }

    void hand_in(const arrival &in) {
        last_ = in;
        relay_model::model tried = model_;
        const bool aborts = tried.take(in).aborts;
        if (aborts && !carrier::guarded) return;  // the relay ends itself over this one, which the unit tests show
        by_->spoil(pattern_);
        judge(by_->carry(in));
    }

    void judge(const std::optional<arrival> &got) {
        relay_model::answer expected;
        if (got) expected = model_.take(*got);
        if (expected.aborts) fail("what would end the relay got to it");
        compare(expected, by_->sent());
        for (const relay_model::datagram &each : expected.datagrams) sent_.push_back(each.message);
        // Servers hear what local relay broadcasts.
        for (const relay_model::frame &each : expected.frames) {
            const bytes message = packet::part_of(each.octets, headers_size, each.octets.size());
            if (!message.empty() && message[0] == 1) sent_.push_back(message);
        }
    }

    relay_model::model model_;
    poison::pattern pattern_;
    carrier *by_;
    std::vector<bytes> sent_ = {};
    arrival last_ = {bytes(236), bytes(4, 255), 10, 5121};
};

// Holds the conversation of an input once for each pattern.
template <typename carrier>
void hold(const std::uint8_t *data, std::size_t size, carrier *by) {
    if (size < model_world::choice_size) return;
    const std::vector<event> events = read_events(data + model_world::choice_size, size - model_world::choice_size);
    for (const poison::pattern &pattern : poison::patterns) {
        by->begin(data);
        talk<carrier> all(data, pattern, by);
        for (const event &each : events) all.hold(each);
        all.finish();
    }
}

// ---- Mutation: events are changed as events, and the options of a request as options ----

inline bytes piece_of(const event &each) {
    bytes piece = {each.kind,
                   each.a,
                   each.b,
                   each.c,
                   static_cast<std::uint8_t>(each.data.size()),
                   static_cast<std::uint8_t>(each.data.size() >> 8)};
    piece.insert(piece.end(), each.data.begin(), each.data.end());
    return piece;
}

inline void fix_event(bytes &piece) {
    piece.resize(std::clamp<std::size_t>(piece.size(), head_size, head_size + 1023));
    piece[4] = static_cast<std::uint8_t>(piece.size() - head_size);
    piece[5] = static_cast<std::uint8_t>((piece.size() - head_size) >> 8);
}

inline void change_message(bytes &piece, pieces::dice &draw) {
    const std::size_t before = head_size + (piece[0] % 8 == 0 ? 2 : 240);
    if (piece.size() < before) return pieces::change_inside(piece, 32);
    const bytes area(piece.begin() + static_cast<std::ptrdiff_t>(before), piece.end());
    const bytes changed = pieces::change_options(area, draw);
    piece.resize(before);
    piece.insert(piece.end(), changed.begin(), changed.end());
}

inline std::size_t mutate(std::uint8_t *data, std::size_t size, std::size_t max_size, unsigned seed) {
    pieces::dice draw(seed);
    if (size < model_world::choice_size || draw.one_in(8)) return LLVMFuzzerMutate(data, size, max_size);
    const bytes choice(data, data + model_world::choice_size);
    std::vector<bytes> row;
    for (const event &each : read_events(data + model_world::choice_size, size - model_world::choice_size))
        row.push_back(piece_of(each));
    if (!row.empty() && draw.one_in(3)) {
        bytes &piece = row[draw.below(row.size())];
        change_message(piece, draw);
        fix_event(piece);
    } else {
        pieces::change(row, draw, fix_event);
    }
    return pieces::put(row, choice, data, max_size);
}

}  // namespace conversation

#endif
