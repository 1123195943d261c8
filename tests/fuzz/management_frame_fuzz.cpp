// SPDX-License-Identifier: Apache-2.0
// Surface: what comes over the management socket, from either end, as a stream of frames.
//
// Contract: whatever the bytes, nothing outside them is read. A payload that a message's reader takes is exactly what
// the message's writer makes of the fields it read: there are no two ways to write a message, and nothing is lost
// between the ends. No reader takes a payload that has lost a byte of a field, or gained one behind its last.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <span>
#include <vector>

#include "management_protocol.h"
#include "pieces.h"

namespace {

namespace protocol = ravo::protocol;
using protocol::bytes;
using protocol::frame_type;
using payload_span = std::span<const std::uint8_t>;

void require(bool condition) {
    if (!condition) std::abort();
}

// The payload that a frame of ours carries.
payload_span payload_of(const bytes &frame) {
    const auto head = protocol::read_head(frame);
    require(head.has_value() && frame.size() == protocol::head_size + head->length);
    return payload_span(frame).subspan(protocol::head_size);
}

void require_same(payload_span payload, const bytes &written) {
    const payload_span again = payload_of(written);
    require(std::equal(payload.begin(), payload.end(), again.begin(), again.end()));
}

void check_to_daemon(std::uint8_t type, payload_span payload) {
    switch (static_cast<frame_type>(type)) {
        case frame_type::hello:
            // A later version may carry more than is known here.
            if (const auto m = protocol::read_hello(payload); m && m->version == protocol::version)
                require_same(payload, protocol::hello_frame(*m));
            break;
        case frame_type::run:
            if (const auto m = protocol::read_run(payload)) require_same(payload, protocol::run_frame(*m));
            break;
        case frame_type::help:
        case frame_type::complete:
            if (const auto m = protocol::read_ask(payload))
                require_same(payload, protocol::ask_frame(static_cast<frame_type>(type), *m));
            break;
        case frame_type::behalf:
            if (const auto m = protocol::read_behalf(payload)) require_same(payload, protocol::behalf_frame(*m));
            break;
        default:
            break;
    }
}

void check_from_daemon(std::uint8_t type, payload_span payload) {
    switch (static_cast<frame_type>(type)) {
        case frame_type::welcome:
            if (const auto m = protocol::read_welcome(payload)) require_same(payload, protocol::welcome_frame(*m));
            break;
        case frame_type::refused:
            if (const auto m = protocol::read_refused(payload)) require_same(payload, protocol::refused_frame(*m));
            break;
        case frame_type::value:
            if (const auto m = protocol::read_value(payload))
                require_same(payload, protocol::value_frame(protocol::as_bytes(m->key), m->text));
            break;
        case frame_type::help_row:
            if (const auto m = protocol::read_help(payload)) {
                require_same(payload, protocol::help_frame(*m));
                require(!protocol::read_help(payload.first(payload.size() - 1)));
            }
            break;
        case frame_type::status:
            if (const auto m = protocol::read_status(payload)) {
                require_same(payload, protocol::status_frame(*m));
                require(!protocol::read_status(payload.first(payload.size() - 1)));
            }
            break;
        default:
            break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    payload_span left(data, size);
    while (const auto head = protocol::read_head(left)) {
        left = left.subspan(protocol::head_size);
        if (head->length > left.size()) break;
        // In memory of exactly this size, so that a byte read behind it shows.
        const auto exact = std::make_unique<std::uint8_t[]>(head->length);
        std::copy_n(left.begin(), head->length, exact.get());
        const payload_span payload(exact.get(), head->length);
        check_to_daemon(head->type, payload);
        check_from_daemon(head->type, payload);
        left = left.subspan(head->length);
    }
    return 0;
}

namespace {

constexpr std::uint8_t known_types[] = {1, 2, 3, 4, 5, 6, 129, 130, 131, 132, 133, 134, 135, 136, 137, 138, 139};

// Puts a frame's length right.
void fix_frame(pieces::bytes &frame) {
    frame.resize(std::max(frame.size(), protocol::head_size));
    const std::size_t length = frame.size() - protocol::head_size;
    for (std::size_t i = 0; i < 4; ++i) frame[1 + i] = static_cast<std::uint8_t>(length >> (24 - 8 * i));
}

}  // namespace

// Frames are changed as frames: their lengths are put right, and some change their type.
extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t *data, std::size_t size, std::size_t max_size,
                                               unsigned seed) {
    pieces::dice draw(seed);
    if (size < protocol::head_size || draw.one_in(6)) return LLVMFuzzerMutate(data, size, max_size);
    std::vector<pieces::bytes> row;
    payload_span left(data, size);
    while (!left.empty()) {
        const auto head = protocol::read_head(left);
        std::size_t length = left.size();
        if (head && head->length <= left.size() - protocol::head_size) length = protocol::head_size + head->length;
        row.emplace_back(left.begin(), left.begin() + static_cast<std::ptrdiff_t>(length));
        left = left.subspan(length);
    }
    pieces::bytes &one = row[draw.below(row.size())];
    if (draw.one_in(6))
        one[0] = known_types[draw.below(std::size(known_types))];
    else
        pieces::change(row, draw, fix_frame);
    return pieces::put(row, {}, data, max_size);
}
