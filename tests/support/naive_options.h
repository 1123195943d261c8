// SPDX-License-Identifier: Apache-2.0
// A second reader of DHCP messages, which shares no code with the relay: it makes a list of a message's options, and
// answers every question from that list. It is slow, and easy to believe.
//
// Like the relay it looks at a message where it is held: zero behind the message, and full of END options behind that.
#ifndef NAIVE_OPTIONS_H
#define NAIVE_OPTIONS_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace naive {

using bytes = std::vector<std::uint8_t>;

inline constexpr std::size_t held_size = 1024;  // of a message, zero behind it
inline constexpr std::size_t first_option = 240;
inline constexpr std::uint8_t pad = 0, type_code = 53, vendor_code = 60, client_code = 61, agent_code = 82, end = 255;
inline constexpr std::uint8_t circuit_id = 1, remote_id = 2;

// A message where it is held; behind all that is END without end.
class held {
  public:
    explicit held(bytes message) : bytes_(std::move(message)) { bytes_.resize(held_size); }
    std::uint8_t at(std::size_t place) const { return place < bytes_.size() ? bytes_[place] : end; }
    void set(std::size_t place, std::uint8_t value) {
        if (place >= bytes_.size()) bytes_.resize(place + 1, end);
        bytes_[place] = value;
    }
    void set(std::size_t place, const bytes &values) {
        for (std::size_t i = 0; i < values.size(); ++i) set(place + i, values[i]);
    }
    bytes part(std::size_t from, std::size_t size) const {
        bytes out;
        for (std::size_t i = 0; i < size; ++i) out.push_back(at(from + i));
        return out;
    }

  private:
    bytes bytes_;
};

struct option {
    std::size_t place;  // of its code
    std::uint8_t code;
    std::size_t size;    // with code and length
    std::uint8_t value;  // the byte behind its length, whatever that says
};

inline bool is_single(std::uint8_t code) {
    return code == pad || code == end;
}

inline option option_at(const held &message, std::size_t place) {
    const std::uint8_t code = message.at(place);
    return {place, code, is_single(code) ? 1U : 2U + message.at(place + 1), message.at(place + 2)};
}

// The options through the first END.
inline std::vector<option> options_of(const held &message) {
    std::vector<option> all = {option_at(message, first_option)};
    while (all.back().code != end) all.push_back(option_at(message, all.back().place + all.back().size));
    return all;
}

// Whether an option area of this length, cookie included, is a chain that has an END and stops at its last byte.
inline bool is_chain(const held &message, std::ptrdiff_t length) {
    if (length == 0) return true;
    if (length < 5 || message.part(236, 4) != bytes{99, 130, 83, 99}) return false;
    const std::size_t stop = 236 + static_cast<std::size_t>(length);
    std::size_t place = first_option;
    bool ends = false;
    while (place < stop) {
        const option here = option_at(message, place);
        ends = ends || here.code == end;
        place += here.size;
    }
    return ends && place == stop;
}

inline std::optional<std::uint8_t> message_type(const held &message) {
    for (const option &each : options_of(message))
        if (each.code == type_code) return each.value;
    return {};
}

// What there is to know of the first option 82.
struct agent_found {
    bool present = false;
    std::size_t circuit = 0;  // where its data begins, 0 unless that begins with a circuit id
    std::uint8_t type = 0;    // the last message type before it
    bool typed = false;       // there was one
};

inline agent_found find_agent(const held &message) {
    agent_found out;
    for (const option &each : options_of(message)) {
        if (each.code == type_code) {
            out.type = each.value;
            out.typed = true;
        }
        if (each.code != agent_code) continue;
        out.present = true;
        if (each.value == circuit_id) out.circuit = each.place + 2;
        break;
    }
    return out;
}

// What the client says of itself.
struct identifiers {
    bool vendor_found = false, client_found = false;
    bytes vendor = bytes(64), client = bytes(128);
};

inline identifiers identify(const held &message) {
    identifiers out;
    for (const option &each : options_of(message)) {
        if (each.code != vendor_code && each.code != client_code) continue;
        bytes &into = each.code == vendor_code ? out.vendor : out.client;
        (each.code == vendor_code ? out.vendor_found : out.client_found) = true;
        const bytes data = message.part(each.place + 2, std::min(each.size - 2, into.size()));
        std::copy(data.begin(), data.end(), into.begin());
    }
    return out;
}

// What is before the first zero byte.
inline std::string text_of(const bytes &data) {
    return {data.begin(), std::find(data.begin(), data.end(), 0)};
}

// Bytes from the first option through END.
inline std::size_t length_of(const held &message) {
    return options_of(message).back().place + 1 - first_option;
}

enum class change { none, remove, add, replace };

// Changes option 82, of which only one that begins with a circuit id counts, and of these the last. fresh: the one to
// write. Returns the length from the first option through END.
inline std::size_t fill(held &message, change how, const bytes &fresh) {
    const std::vector<option> all = options_of(message);
    const std::size_t stop = all.back().place;
    const std::size_t length = stop + 1 - first_option;
    const option *old = nullptr;
    for (const option &each : all)
        if (each.code == agent_code && each.value == circuit_id) old = &each;
    if (how == change::none) return length;
    if (how == change::remove) {
        if (old == nullptr || old->size >= length) return length;
        const bytes rest = message.part(old->place + old->size, stop + 1 - old->place - old->size);
        message.set(old->place, rest);
        return length - old->size;
    }
    if (how == change::add && old != nullptr) return length;
    const std::size_t base = old == nullptr ? length : length - old->size;
    if (base + 4 > 311) return length;  // no room: the message goes on as it is
    bytes written = fresh;
    written.push_back(end);
    message.set(old == nullptr ? stop : old->place, written);
    return base + fresh.size();
}

}  // namespace naive

#endif
