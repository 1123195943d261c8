// SPDX-License-Identifier: Apache-2.0
// Output filters: what is behind "|" in a line. Several in a row work on each other's lines.
#ifndef PLATFORM_LINUX_CLI_FILTER_H
#define PLATFORM_LINUX_CLI_FILTER_H

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "cli/pattern.h"

namespace ravo::cli {

enum class filter_kind { include, exclude, begin, section, count, json };

enum class pattern_use { required, optional, none };

struct filter_stage {
    filter_kind kind = filter_kind::include;
    std::unique_ptr<pattern> what;  // null: every line matches
    bool open = false;              // "begin" has found its line; the line before was part of a "section"
    std::size_t matches = 0;        // lines that "count" counted
};

struct line_filter {
    std::vector<filter_stage> stages;
    std::string partial;  // the line that is not ended yet
    bool json = false;    // the first stage asks for the data as JSON
};

// The filters by name, for help and completion.
struct filter_row {
    std::string_view name;
    filter_kind kind;
    pattern_use pattern;
    std::string_view help;
};
const std::vector<filter_row> &filter_rows();

// What is wrong with the text behind a "|".
struct filter_fault {
    enum { none, invalid, incomplete, ambiguous, pattern } kind = none;
    std::size_t column = 0;  // within the text
    std::string reason;      // of a bad pattern; the word of an ambiguous filter
};

// Makes a filter of the text behind a "|". A further "|" at the beginning of a word and outside of quotes begins the
// next one of the row. Returns null and fills *fault when it is none.
std::unique_ptr<line_filter> filter_read(std::string_view text, filter_fault *fault);

// The text of the last filter of a row, behind its "|": what is being typed.
std::string_view filter_last(std::string_view text);

// Puts text through the filter; each line that passes goes to sink with its line end.
using filter_sink = std::function<void(std::string_view line)>;
void filter_feed(line_filter &filter, std::string_view text, const filter_sink &sink);
// Ends the text: the last line, if it has no line end, and the counts.
void filter_finish(line_filter &filter, const filter_sink &sink);

}  // namespace ravo::cli

#endif
