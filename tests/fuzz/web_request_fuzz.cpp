// SPDX-License-Identifier: Apache-2.0
// Surface: what a request to ravo-web says, as far as our own code takes it apart: its target, its query, cookies and
// tokens, and a JSON body. It comes from whoever reaches the port.
//
// Contract: whatever the bytes, nothing outside them is read. A target that is taken has no segment that leads
// elsewhere and no control character; written out again it is taken as the same. A body is taken with exactly its
// members, each within its limit. Words for a command line and addresses have only the characters that they may have.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "request_text.h"

namespace {

using namespace ravo::web;

void require(bool condition) {
    if (!condition) std::abort();
}

bool is_control(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < ' ' || byte == 0x7F;
}

std::string escaped(std::string_view text) {
    constexpr const char *digits = "0123456789abcdef";
    std::string out;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        out += '%';
        out += digits[byte >> 4];
        out += digits[byte & 15];
    }
    return out;
}

void check_target(std::string_view data) {
    const auto taken = read_target(data);
    if (!taken) return;
    std::string again;
    for (const std::string &segment : taken->path) {
        require(segment != "." && segment != "..");
        require(std::none_of(segment.begin(), segment.end(), is_control));
        require(segment.find_first_of("/\\") == std::string::npos);
        again += "/" + escaped(segment);
    }
    if (again.empty()) again = "/";
    if (again.size() > longest_uri || again.ends_with('/')) return;
    const auto second = read_target(again);
    require(second && second->path == taken->path);
    for (const char *name : {"search", "limit", ""}) (void)query_value(taken->query, name);
    const auto number = query_number(taken->query, "limit", 5, 1000);
    require(!number || *number <= 1000);
}

void check_body(std::string_view data) {
    std::vector<body_member> members = {{"address", 15}, {"trusted"}};
    if (read_body(data, &members)) return;
    require(data.size() <= longest_body && members[0].text.size() <= 15);
    require(std::none_of(members[0].text.begin(), members[0].text.end(), is_control));
}

void check_words(std::string_view data) {
    if (is_plain_word(data, 31)) require(data.find_first_of(" \t\r\n\"|?;\\") == std::string_view::npos);
    if (is_ipv4(data)) require(data.find_first_not_of("0123456789.") == std::string_view::npos);
    if (const auto mac = read_mac(data)) require(mac->size() == 17 && read_mac(*mac) == mac);
    require(same_secret(data, data));
    require(data.empty() || !same_secret(data, data.substr(1)));
    const std::string_view cookie = cookie_value(data, "ravo-session");
    require(cookie.empty() || data.find(cookie) != std::string_view::npos);
    (void)bearer_token(data);
    (void)host_of(data);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    check_target(text);
    check_body(text);
    check_words(text);
    return 0;
}
