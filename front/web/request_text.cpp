// SPDX-License-Identifier: Apache-2.0
// Everything here works on text that is bounded before it is looked at. What cannot be decoded is refused and never
// repaired.
#include "request_text.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <nlohmann/json.hpp>

namespace ravo::web {

namespace {

constexpr std::size_t most_segments = 16;

int digit_of(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool is_control(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < ' ' || byte == 0x7F;
}

// Decodes %XX, and "+" as a blank where wanted. Nothing for a broken escape or a control character.
std::optional<std::string> decode(std::string_view text, bool plus_is_blank) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t at = 0; at < text.size(); ++at) {
        char c = text[at];
        if (c == '%') {
            if (at + 2 >= text.size()) return std::nullopt;
            const int high = digit_of(text[at + 1]);
            const int low = digit_of(text[at + 2]);
            if (high < 0 || low < 0) return std::nullopt;
            c = static_cast<char>(high * 16 + low);
            at += 2;
        } else if (c == '+' && plus_is_blank) {
            c = ' ';
        }
        if (is_control(c)) return std::nullopt;
        out += c;
    }
    return out;
}

bool is_bad_segment(std::string_view segment) {
    return segment == "." || segment == ".." || segment.find_first_of("/\\") != std::string_view::npos;
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
    return text;
}

// Takes what is before a separator off the text.
std::string_view take_until(std::string_view *text, char separator) {
    const std::size_t end = std::min(text->find(separator), text->size());
    const std::string_view taken = text->substr(0, end);
    text->remove_prefix(std::min(end + 1, text->size()));
    return taken;
}

bool same_word(std::string_view one, std::string_view other) {
    return std::equal(one.begin(), one.end(), other.begin(), other.end(), [](char a, char b) {
        return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
    });
}

fault take_member(const nlohmann::json &value, body_member *member) {
    const std::string name(member->name);
    if (member->longest == 0) {
        if (!value.is_boolean()) return {"\"" + name + "\" must be true or false"};
        member->flag = value.get<bool>();
        return {};
    }
    if (!value.is_string()) return {"\"" + name + "\" must be a text"};
    member->text = value.get<std::string>();
    if (member->text.size() > member->longest)
        return {"\"" + name + "\" must not be longer than " + std::to_string(member->longest) + " bytes"};
    if (std::any_of(member->text.begin(), member->text.end(), is_control))
        return {"\"" + name + "\" must not have control characters"};
    return {};
}

}  // namespace

std::optional<target> read_target(std::string_view uri) {
    if (uri.size() > longest_uri || !uri.starts_with('/')) return std::nullopt;
    target out;
    const std::size_t mark = std::min(uri.find('?'), uri.size());
    std::string_view path = uri.substr(1, mark - 1);
    if (mark < uri.size()) out.query = uri.substr(mark + 1);
    while (!path.empty()) {
        auto segment = decode(take_until(&path, '/'), /*plus_is_blank=*/false);
        if (!segment || is_bad_segment(*segment) || out.path.size() == most_segments) return std::nullopt;
        out.path.push_back(std::move(*segment));
    }
    return out;
}

std::optional<std::string> query_value(std::string_view query, std::string_view name) {
    while (!query.empty()) {
        std::string_view pair = take_until(&query, '&');
        if (take_until(&pair, '=') == name) return decode(pair, /*plus_is_blank=*/true);
    }
    return std::nullopt;
}

std::optional<std::size_t> query_number(std::string_view query, std::string_view name, std::size_t otherwise,
                                        std::size_t most) {
    const auto text = query_value(query, name);
    if (!text) return otherwise;
    std::size_t number = 0;
    const auto [end, fault] = std::from_chars(text->data(), text->data() + text->size(), number);
    if (fault != std::errc{} || end != text->data() + text->size() || number > most) return std::nullopt;
    return number;
}

std::string_view cookie_value(std::string_view header, std::string_view name) {
    while (!header.empty()) {
        std::string_view pair = trimmed(take_until(&header, ';'));
        const std::string_view found = take_until(&pair, '=');
        if (found == name) return pair;
    }
    return {};
}

std::string_view bearer_token(std::string_view header) {
    header = trimmed(header);
    if (!same_word(take_until(&header, ' '), "Bearer")) return {};
    return trimmed(header);
}

bool same_secret(std::string_view one, std::string_view other) {
    unsigned difference = one.size() == other.size() ? 0 : 1;
    for (std::size_t i = 0; i < one.size(); ++i)
        difference |= static_cast<unsigned char>(one[i]) ^
                      static_cast<unsigned>(static_cast<unsigned char>(other.empty() ? '\1' : other[i % other.size()]));
    return difference == 0;
}

fault read_body(std::string_view body, std::vector<body_member> *members) {
    if (body.size() > longest_body)
        return {"the body must not be longer than " + std::to_string(longest_body) + " bytes"};
    const nlohmann::json value = nlohmann::json::parse(body, nullptr, /*allow_exceptions=*/false);
    if (!value.is_object()) return {"the body must be a JSON object"};
    for (body_member &member : *members) {
        const auto found = value.find(member.name);
        if (found == value.end()) return {"\"" + std::string(member.name) + "\" is missing"};
        const fault wrong = take_member(*found, &member);
        if (wrong) return wrong;
    }
    if (value.size() != members->size()) return {"the body has a member that is not known here"};
    return {};
}

bool is_plain_word(std::string_view word, std::size_t longest) {
    if (word.empty() || word.size() > longest || word.front() == '-') return false;
    return std::all_of(word.begin(), word.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '.' || c == '_' || c == '-' || c == ':' ||
               c == '@';
    });
}

bool is_ipv4(std::string_view text) {
    in_addr address{};
    char again[INET_ADDRSTRLEN];
    const std::string whole(text);
    return inet_pton(AF_INET, whole.c_str(), &address) == 1 &&
           inet_ntop(AF_INET, &address, again, sizeof again) != nullptr && text == again;
}

std::optional<std::string> read_mac(std::string_view text) {
    std::string digits;
    for (const char c : text) {
        if (digit_of(c) >= 0)
            digits += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        else if (c != ':' && c != '-' && c != '.')
            return std::nullopt;
    }
    if (digits.size() != 12) return std::nullopt;
    std::string out;
    for (std::size_t at = 0; at < digits.size(); at += 2) out += (at == 0 ? "" : ":") + digits.substr(at, 2);
    return out;
}

std::string_view host_of(std::string_view authority) {
    if (authority.starts_with('[')) {
        const std::size_t end = authority.find(']');
        return end == std::string_view::npos ? std::string_view{} : authority.substr(1, end - 1);
    }
    return authority.substr(0, authority.find(':'));
}

}  // namespace ravo::web
