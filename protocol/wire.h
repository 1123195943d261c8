// SPDX-License-Identifier: Apache-2.0
// Checked reading and writing of big-endian fields in a frame's payload.
#ifndef PROTOCOL_WIRE_H
#define PROTOCOL_WIRE_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace ravo::protocol {

using bytes = std::vector<std::uint8_t>;

// Text as the bytes that carry it.
inline std::span<const std::uint8_t> as_bytes(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t *>(text.data()), text.size()};
}

// Bytes as text.
inline std::string_view as_text(std::span<const std::uint8_t> data) {
    return {reinterpret_cast<const char *>(data.data()), data.size()};
}

// Reads fields one after the other. A field that is not all there reads as zero or empty and latches failed; whoever
// reads a message tests that once, at its end.
struct byte_reader {
    std::span<const std::uint8_t> data;  // what has not been read yet
    bool failed = false;

    std::span<const std::uint8_t> take(std::size_t length) {
        if (failed || length > data.size()) {
            failed = true;
            return {};
        }
        const std::span<const std::uint8_t> taken = data.first(length);
        data = data.subspan(length);
        return taken;
    }
    std::uint32_t number(std::size_t length) {
        std::uint32_t value = 0;
        for (const std::uint8_t byte : take(length)) value = value << 8 | byte;
        return value;
    }
    std::uint8_t u8() { return static_cast<std::uint8_t>(number(1)); }
    std::uint16_t u16() { return static_cast<std::uint16_t>(number(2)); }
    std::uint32_t u32() { return number(4); }
    // Text behind its length in two bytes.
    std::string text() { return std::string(as_text(take(u16()))); }
    // All that is left.
    std::string rest() { return std::string(as_text(take(data.size()))); }
    // True when every field was there and nothing is left.
    bool complete() const { return !failed && data.empty(); }
};

// Writes fields one after the other.
struct byte_writer {
    bytes out;

    byte_writer &number(std::uint32_t value, std::size_t length) {
        while (length-- > 0) out.push_back(static_cast<std::uint8_t>(value >> (8 * length)));
        return *this;
    }
    byte_writer &u8(std::uint8_t value) { return number(value, 1); }
    byte_writer &u16(std::uint16_t value) { return number(value, 2); }
    byte_writer &u32(std::uint32_t value) { return number(value, 4); }
    byte_writer &raw(std::span<const std::uint8_t> data) {
        out.insert(out.end(), data.begin(), data.end());
        return *this;
    }
    // Text behind its length in two bytes; what does not fit into that is cut off.
    byte_writer &text(std::string_view value) {
        value = value.substr(0, 0xFFFF);
        return u16(static_cast<std::uint16_t>(value.size())).raw(as_bytes(value));
    }
    byte_writer &rest(std::string_view value) { return raw(as_bytes(value)); }
};

}  // namespace ravo::protocol

#endif
