// SPDX-License-Identifier: Apache-2.0
#include "base/text.h"

#include <algorithm>

namespace ravo::platform {

std::string wrapped_text(std::string_view head, std::string_view text, std::size_t column) {
    constexpr std::size_t width = 80;
    std::string out, line(head);
    bool fresh = true;  // no word of the text stands in the line yet
    while (!text.empty()) {
        const std::string_view word = text.substr(0, text.find(' '));
        text.remove_prefix(std::min(text.size(), word.size() + 1));
        if (!fresh && line.size() + 1 + word.size() > width) {
            out += line + "\n";
            line.assign(column, ' ');
            fresh = true;
        }
        if (!fresh) line += ' ';
        line += word;
        fresh = false;
    }
    return out + line + "\n";
}

}  // namespace ravo::platform
