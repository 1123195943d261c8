// Filters work on whole lines, so what a handler prints in pieces is put together first.
//
// Patterns are POSIX extended expressions. They come from whoever has a session, and the daemon has one thread: the
// matcher of the C library works without backtracking as long as there are no back-references, so these are refused.
// Short patterns can be large inside it: repetition counts are refused too, and as each "+" doubles what it repeats, a
// pattern that piles them up is measured before it is compiled. Only the first part of a very long line is looked at.
#include "cli/filter.h"

#include <utility>
#include <vector>

#include "cli/words.h"

namespace ravo::cli {

namespace {

constexpr std::size_t pattern_limit = 128;
constexpr std::size_t matched_part_limit = 1024;
constexpr std::size_t pattern_size_limit = 10000;  // nodes of the compiled pattern, by our reckoning

// Takes away the quotes around a pattern that was typed in quotes.
std::string_view unquoted(std::string_view text) {
    return text.size() >= 2 && text.front() == '"' && text.back() == '"' ? text.substr(1, text.size() - 2) : text;
}

// The place of the last character of the bracket expression that begins at a place.
std::size_t end_of_bracket(std::string_view text, std::size_t at) {
    ++at;
    if (at < text.size() && text[at] == '^') ++at;
    if (at < text.size() && text[at] == ']') ++at;  // a character like others there
    while (at < text.size() && text[at] != ']') {
        const bool is_class = text[at] == '[' && at + 1 < text.size() &&
                              std::string_view(":.=").find(text[at + 1]) != std::string_view::npos;
        const std::size_t end = is_class ? text.find(std::string{text[at + 1], ']'}, at + 2) : std::string_view::npos;
        at = end == std::string_view::npos ? at + 1 : end + 2;
    }
    return at;
}

// How large a pattern becomes in the matcher. Stops reckoning where it is too large anyway.
std::size_t size_of_pattern(std::string_view text) {
    struct group {
        std::size_t total = 1;
        std::size_t last = 0;  // of that, what a repetition would repeat
    };
    std::vector<group> open(1);
    const auto add = [&](std::size_t size) {
        open.back().last = size;
        open.back().total += size;
    };
    for (std::size_t i = 0; i < text.size() && open.back().total <= pattern_size_limit; ++i) {
        const char c = text[i];
        if (c == '\\') ++i;
        if (c == '[') i = end_of_bracket(text, i);
        if (c == '(') {
            open.push_back({});
        } else if (c == ')' && open.size() > 1) {
            const std::size_t inner = open.back().total;
            open.pop_back();
            add(inner);
        } else if (c == '+') {
            open.back().total += open.back().last;
            open.back().last *= 2;
        } else if (c == '*' || c == '?') {
            ++open.back().total;
            ++open.back().last;
        } else {
            add(1);
        }
    }
    return open.back().total;
}

// Tells why a pattern is not taken; empty when it is.
std::string refuse(std::string_view text) {
    if (text.size() > pattern_limit) return "longer than " + std::to_string(pattern_limit) + " characters";
    if (text.find('\0') != std::string_view::npos) return "it holds a NUL character";
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 1 < text.size()) {
            if (text[++i] >= '0' && text[i] <= '9') return "back-references are not supported";
        } else if (text[i] == '{') {
            return "repetition counts are not supported; write \\{ for the character";
        }
    }
    if (size_of_pattern(text) > pattern_size_limit) return "too many repetitions of repetitions";
    return {};
}

// Compiles a pattern. Returns an empty string, or what is wrong with it.
std::string compile_pattern(std::string_view text, line_filter *out) {
    std::string reason = refuse(text);
    if (!reason.empty()) return reason;
    auto compiled = std::make_unique<regex_t>();
    const int code = regcomp(compiled.get(), std::string(text).c_str(), REG_EXTENDED | REG_NOSUB);
    if (code != 0) {  // then there is nothing to free but the record
        char message[128];
        regerror(code, compiled.get(), message, sizeof message);
        return message;
    }
    out->pattern.reset(compiled.release());
    return {};
}

bool matches(const line_filter &filter, std::string_view line) {
    if (filter.pattern == nullptr) return true;
    const std::string part(line.substr(0, matched_part_limit));
    return regexec(filter.pattern.get(), part.c_str(), 0, nullptr, 0) == 0;
}

bool passes(line_filter &filter, std::string_view line) {
    switch (filter.kind) {
        case filter_kind::include:
            return matches(filter, line);
        case filter_kind::exclude:
            return !matches(filter, line);
        case filter_kind::begin:
            filter.begun = filter.begun || matches(filter, line);
            return filter.begun;
        case filter_kind::count:
            filter.matches += matches(filter, line) ? 1 : 0;
            return false;
        case filter_kind::json:  // what comes is the document already
            return true;
    }
    return false;
}

void filter_line(line_filter &filter, std::string_view line, const filter_sink &sink) {
    if (passes(filter, line)) sink(std::string(line) + "\n");
}

const filter_row *find_row(const word &typed, filter_fault *fault) {
    const filter_row *found = nullptr;
    for (const filter_row &row : filter_rows()) {
        if (typed.quoted || !begins_with(row.name, typed.text)) continue;
        if (found != nullptr) {
            fault->kind = filter_fault::ambiguous;
            return nullptr;
        }
        found = &row;
    }
    if (found == nullptr) fault->kind = filter_fault::invalid;
    return found;
}

}  // namespace

const std::vector<filter_row> &filter_rows() {
    static const std::vector<filter_row> rows = {
        {"begin", filter_kind::begin, pattern_use::required, "From the first line that matches on"},
        {"count", filter_kind::count, pattern_use::optional, "The number of lines, or of those that match"},
        {"exclude", filter_kind::exclude, pattern_use::required, "Lines that do not match"},
        {"include", filter_kind::include, pattern_use::required, "Lines that match"},
        {"json", filter_kind::json, pattern_use::none, "The data as JSON"},
    };
    return rows;
}

std::unique_ptr<line_filter> filter_read(std::string_view text, filter_fault *fault) {
    *fault = {};
    const split_line parts = split(text);
    if (parts.words.empty()) {
        fault->kind = parts.pipe == std::string_view::npos ? filter_fault::incomplete : filter_fault::invalid;
        fault->column = parts.pipe == std::string_view::npos ? text.size() : parts.pipe;
        return nullptr;
    }
    const word &name = parts.words.front();
    fault->column = name.column;
    fault->reason = name.text;
    const filter_row *row = find_row(name, fault);
    if (row == nullptr) return nullptr;
    const std::string_view pattern = unquoted(trim(text.substr(name.end)));
    if (pattern.empty() && row->pattern == pattern_use::required) {
        fault->kind = filter_fault::incomplete;
        return nullptr;
    }
    if (!pattern.empty() && row->pattern == pattern_use::none) {
        fault->kind = filter_fault::invalid;
        fault->column = text.find_first_not_of(" \t", name.end);
        return nullptr;
    }
    auto out = std::make_unique<line_filter>();
    out->kind = row->kind;
    if (!pattern.empty()) fault->reason = compile_pattern(pattern, out.get());
    if (!pattern.empty() && !fault->reason.empty()) {
        fault->kind = filter_fault::pattern;
        return nullptr;
    }
    return out;
}

void filter_feed(line_filter &filter, std::string_view text, const filter_sink &sink) {
    for (std::size_t end = text.find('\n'); end != std::string_view::npos; end = text.find('\n')) {
        filter.partial += text.substr(0, end);
        filter_line(filter, std::exchange(filter.partial, {}), sink);
        text.remove_prefix(end + 1);
    }
    filter.partial += text;
}

void filter_finish(line_filter &filter, const filter_sink &sink) {
    if (!filter.partial.empty()) filter_line(filter, std::exchange(filter.partial, {}), sink);
    if (filter.kind == filter_kind::count) sink(std::to_string(filter.matches) + "\n");
}

}  // namespace ravo::cli
