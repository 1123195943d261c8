// SPDX-License-Identifier: Apache-2.0
// One walk over the words: each has to begin with the name of a row, whose value is behind "=" or in the next word.
#include "option_words.h"

#include <algorithm>

namespace ravo::client {

fault read_options(const std::vector<std::string> &words, const std::vector<option_row> &table) {
    for (std::size_t at = 0; at < words.size(); ++at) {
        const std::string &word = words[at];
        const std::size_t mark = std::min(word.find('='), word.size());
        const std::string name = word.substr(0, mark);
        const auto row = std::find_if(table.begin(), table.end(), [&](const option_row &r) { return r.name == name; });
        if (row == table.end()) return {"unknown option \"" + word + "\""};
        if (row->flag != nullptr) {
            if (mark < word.size()) return {"option " + name + " has no value"};
            *row->flag = true;
            continue;
        }
        if (mark < word.size())
            *row->value = word.substr(mark + 1);
        else if (at + 1 < words.size())
            *row->value = words[++at];
        else
            row->value->clear();
        if (row->value->empty()) return {"option " + name + " needs " + std::string(row->needs)};
    }
    return {};
}

}  // namespace ravo::client
