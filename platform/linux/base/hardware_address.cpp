// SPDX-License-Identifier: Apache-2.0
// An address is recognised by where its separators are; digits are then read in order.
#include "base/hardware_address.h"

#include <cstddef>
#include <cstdio>

namespace ravo::platform {

namespace {

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Tells whether the separators of an address stand where one of its forms has them, and nowhere else.
bool has_form(std::string_view text, std::size_t group, char separator) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool between = i % (group + 1) == group;
        if (between ? text[i] != separator : hex_digit(text[i]) < 0) return false;
    }
    return true;
}

}  // namespace

std::string mac_text(const hardware_address &mac) {
    char text[18];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    return text;
}

std::optional<hardware_address> read_mac(std::string_view text) {
    constexpr std::size_t pairs = 17, quads = 14;  // characters
    const bool good = (text.size() == pairs && (has_form(text, 2, ':') || has_form(text, 2, '-'))) ||
                      (text.size() == quads && has_form(text, 4, '.'));
    if (!good) return std::nullopt;
    hardware_address out{};
    std::size_t digits = 0;
    for (const char c : text) {
        if (hex_digit(c) < 0) continue;
        std::uint8_t &byte = out[digits++ / 2];
        byte = static_cast<std::uint8_t>(byte << 4 | hex_digit(c));
    }
    return out;
}

}  // namespace ravo::platform
