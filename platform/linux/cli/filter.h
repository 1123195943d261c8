// Output filters: what stands behind "|" in a line.
#ifndef PLATFORM_LINUX_CLI_FILTER_H
#define PLATFORM_LINUX_CLI_FILTER_H

#include <regex.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace ravo::cli {

enum class filter_kind { include, exclude, begin, count, json };

enum class pattern_use { required, optional, none };

struct regex_delete {
    void operator()(regex_t *compiled) const {
        regfree(compiled);
        delete compiled;
    }
};

struct line_filter {
    filter_kind kind = filter_kind::include;
    std::unique_ptr<regex_t, regex_delete> pattern;  // null: every line matches
    std::string partial;                             // the line that is not ended yet
    bool begun = false;                              // "begin" found its line
    std::size_t matches = 0;                         // lines that "count" counted
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

// Makes a filter of the text behind a "|". Returns null and fills *fault when it is none.
std::unique_ptr<line_filter> filter_read(std::string_view text, filter_fault *fault);

// Puts text through the filter; each line that passes goes to sink with its line end.
using filter_sink = std::function<void(std::string_view line)>;
void filter_feed(line_filter &filter, std::string_view text, const filter_sink &sink);
// Ends the text: the last line, if it has no line end, and the count.
void filter_finish(line_filter &filter, const filter_sink &sink);

}  // namespace ravo::cli

#endif
