// SPDX-License-Identifier: Apache-2.0
// Bytes in tests: written as hex, compared whole, shown side by side when they differ.
#ifndef PACKET_BYTES_H
#define PACKET_BYTES_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

namespace packet {

using bytes = std::vector<std::uint8_t>;

inline int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// "52 12 0106" as bytes. Blanks, line ends and '|' separate; text from '#' to the end of its line is a comment.
inline bytes hex(const std::string &text) {
    bytes result;
    int high = -1;
    bool comment = false;
    for (const char c : text) {
        if (c == '#') comment = true;
        if (c == '\n') comment = false;
        const int digit = comment ? -1 : hex_digit(c);
        if (digit < 0) continue;
        if (high < 0) {
            high = digit;
            continue;
        }
        result.push_back(static_cast<std::uint8_t>(high * 16 + digit));
        high = -1;
    }
    return result;
}

// Four bytes of a message as traces print them: as the number that this machine reads there. upper: %X, else %x.
inline std::string traced_number(const std::string &text, bool upper = false) {
    std::uint32_t number = 0;
    std::memcpy(&number, hex(text).data(), sizeof number);
    char out[16];
    std::snprintf(out, sizeof out, upper ? "%X" : "%x", number);
    return out;
}

inline std::string hex_row(const bytes &data, std::size_t from, std::size_t size) {
    std::string row;
    for (std::size_t i = from; i < from + size; ++i) {
        char text[4] = "   ";
        if (i < data.size()) std::snprintf(text, sizeof text, "%02x ", data[i]);
        row += text;
    }
    return row;
}

// The rows in which two byte strings differ, expected on the left, actual on the right.
inline std::string hex_diff(const bytes &expected, const bytes &actual) {
    constexpr std::size_t width = 16;
    std::string text = "expected " + std::to_string(expected.size()) + " bytes, got " + std::to_string(actual.size());
    for (std::size_t at = 0; at < std::max(expected.size(), actual.size()); at += width) {
        const std::string left = hex_row(expected, at, width);
        const std::string right = hex_row(actual, at, width);
        if (left == right) continue;
        char offset[32];
        std::snprintf(offset, sizeof offset, "\n%5zu  ", at);
        text += offset + left + "| " + right;
    }
    return text;
}

inline testing::AssertionResult same_bytes(const char *expected_text, const char *actual_text, const bytes &expected,
                                           const bytes &actual) {
    if (expected == actual) return testing::AssertionSuccess();
    return testing::AssertionFailure() << actual_text << " is not " << expected_text << ":\n"
                                       << hex_diff(expected, actual);
}

// Joins byte strings.
inline bytes join(std::initializer_list<bytes> parts) {
    bytes result;
    for (const bytes &part : parts) result.insert(result.end(), part.begin(), part.end());
    return result;
}

inline bytes part_of(const bytes &data, std::size_t from, std::size_t size) {
    if (from >= data.size()) return {};
    const std::size_t end = std::min(data.size(), from + size);
    return {data.begin() + static_cast<std::ptrdiff_t>(from), data.begin() + static_cast<std::ptrdiff_t>(end)};
}

}  // namespace packet

// Compares byte strings whole; a difference is shown as hex.
#define EXPECT_BYTES(expected, actual) EXPECT_PRED_FORMAT2(packet::same_bytes, expected, actual)
#define ASSERT_BYTES(expected, actual) ASSERT_PRED_FORMAT2(packet::same_bytes, expected, actual)

#endif
