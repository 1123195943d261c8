// SPDX-License-Identifier: Apache-2.0
// Filters work on whole lines, so what a handler prints in pieces is put together first. Each line goes through the
// stages in their order, as far as they let it pass. Only the first part of a very long line is looked at, so that a
// line's work is bounded too.
#include "cli/filter.h"

#include <algorithm>
#include <utility>

#include "cli/words.h"

namespace ravo::cli {

namespace {

constexpr std::size_t matched_part_limit = 4096;

bool is_blank(char c) {
    return c == ' ' || c == '\t';
}

// Takes away the quotes around a pattern that was typed in quotes.
std::string_view unquoted(std::string_view text) {
    return text.size() >= 2 && text.front() == '"' && text.back() == '"' ? text.substr(1, text.size() - 2) : text;
}

// The column of the "|" that begins the next filter of the row; the text's size when there is none.
std::size_t next_pipe(std::string_view text) {
    bool inside = false;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] == '\\') {
            ++at;
        } else if (text[at] == '"') {
            inside = !inside;
        } else if (text[at] == '|' && !inside && (at == 0 || is_blank(text[at - 1]))) {
            return at;
        }
    }
    return text.size();
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

// Reads one filter. Returns false and fills *fault, with a column within the text, when it is none.
bool read_stage(std::string_view text, filter_stage *out, filter_fault *fault) {
    const split_line parts = split(text);
    if (parts.words.empty()) {
        fault->kind = filter_fault::incomplete;
        fault->column = text.size();
        return false;
    }
    const word &name = parts.words.front();
    fault->column = name.column;
    fault->reason = name.text;
    const filter_row *row = find_row(name, fault);
    if (row == nullptr) return false;
    out->kind = row->kind;
    const std::string_view typed = unquoted(trim(text.substr(name.end)));
    if (typed.empty() && row->pattern == pattern_use::required) fault->kind = filter_fault::incomplete;
    if (!typed.empty() && row->pattern == pattern_use::none) {
        fault->kind = filter_fault::invalid;
        fault->column = text.find_first_not_of(" \t", name.end);
    }
    if (fault->kind != filter_fault::none) return false;
    if (typed.empty()) return true;
    const ravo::fault wrong = pattern_read(typed, &out->what);
    fault->reason = wrong.text;
    if (wrong) fault->kind = filter_fault::pattern;
    return !wrong;
}

// ---- Lines ----

bool matches(const filter_stage &stage, std::string_view line) {
    return stage.what == nullptr || pattern_matches(*stage.what, line.substr(0, matched_part_limit));
}

// A section is a line that is not indented, and the indented ones behind it.
bool is_in_section(const filter_stage &stage, std::string_view line) {
    const bool indented = !line.empty() && is_blank(line.front());
    return indented ? stage.open : matches(stage, line);
}

bool passes(filter_stage &stage, std::string_view line) {
    switch (stage.kind) {
        case filter_kind::include:
            return matches(stage, line);
        case filter_kind::exclude:
            return !matches(stage, line);
        case filter_kind::begin:
            stage.open = stage.open || matches(stage, line);
            return stage.open;
        case filter_kind::section:
            stage.open = is_in_section(stage, line);
            return stage.open;
        case filter_kind::count:
            stage.matches += matches(stage, line) ? 1 : 0;
            return false;
        case filter_kind::json:  // what comes is the document already
            return true;
    }
    return false;
}

// Puts a line through the stages from one on.
void filter_line(line_filter &filter, std::size_t from, std::string_view line, const filter_sink &sink) {
    for (std::size_t i = from; i < filter.stages.size(); ++i)
        if (!passes(filter.stages[i], line)) return;
    sink(std::string(line) + "\n");
}

}  // namespace

const std::vector<filter_row> &filter_rows() {
    static const std::vector<filter_row> rows = {
        {"begin", filter_kind::begin, pattern_use::required, "From the first line that matches on"},
        {"count", filter_kind::count, pattern_use::optional, "The number of lines, or of those that match"},
        {"exclude", filter_kind::exclude, pattern_use::required, "Lines that do not match"},
        {"include", filter_kind::include, pattern_use::required, "Lines that match"},
        {"json", filter_kind::json, pattern_use::none, "The data as JSON"},
        {"section", filter_kind::section, pattern_use::required, "Lines that match, with what is indented below them"},
    };
    return rows;
}

std::unique_ptr<line_filter> filter_read(std::string_view text, filter_fault *fault) {
    auto out = std::make_unique<line_filter>();
    for (std::size_t begin = 0;;) {
        const std::string_view rest = text.substr(begin);
        const std::size_t end = next_pipe(rest);
        filter_stage stage;
        *fault = {};
        const bool nothing = end < rest.size() && trim(rest.substr(0, end)).empty();
        if (nothing) *fault = {filter_fault::invalid, end, {}};
        const bool good = !nothing && read_stage(rest.substr(0, end), &stage, fault);
        // A document takes the place of what the handler prints, so nothing can come before it.
        const bool late_json = good && stage.kind == filter_kind::json && !out->stages.empty();
        if (late_json) fault->kind = filter_fault::invalid;
        fault->column += begin;
        if (!good || late_json) return nullptr;
        out->json = out->json || stage.kind == filter_kind::json;
        out->stages.push_back(std::move(stage));
        if (end == rest.size()) return out;
        begin += end + 1;
    }
}

std::string_view filter_last(std::string_view text) {
    for (std::size_t end = next_pipe(text); end < text.size(); end = next_pipe(text)) text.remove_prefix(end + 1);
    return text;
}

void filter_feed(line_filter &filter, std::string_view text, const filter_sink &sink) {
    for (std::size_t end = text.find('\n'); end != std::string_view::npos; end = text.find('\n')) {
        filter.partial += text.substr(0, end);
        filter_line(filter, 0, std::exchange(filter.partial, {}), sink);
        text.remove_prefix(end + 1);
    }
    filter.partial += text;
}

void filter_finish(line_filter &filter, const filter_sink &sink) {
    if (!filter.partial.empty()) filter_line(filter, 0, std::exchange(filter.partial, {}), sink);
    // A count is a line for the stages behind it.
    for (std::size_t i = 0; i < filter.stages.size(); ++i)
        if (filter.stages[i].kind == filter_kind::count)
            filter_line(filter, i + 1, std::to_string(filter.stages[i].matches), sink);
}

}  // namespace ravo::cli
