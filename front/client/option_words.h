// SPDX-License-Identifier: Apache-2.0
// The options of a program's command line: "--name VALUE", "--name=VALUE" and flags.
#ifndef FRONT_CLIENT_OPTION_WORDS_H
#define FRONT_CLIENT_OPTION_WORDS_H

#include <string>
#include <string_view>
#include <vector>

#include "fault.h"

namespace ravo::client {

// One option: where its value goes, or which flag it sets. Exactly one of the two is not null.
struct option_row {
    std::string_view name;  // "--listen"
    std::string *value;     // the last one given counts; never empty
    bool *flag;
    std::string_view needs;  // of a value, for the message: "ADDRESS:PORT"
};

// Reads all words; what is no option of the table is refused. The fault, if any: what is wrong with the usage.
fault read_options(const std::vector<std::string> &words, const std::vector<option_row> &table);

}  // namespace ravo::client

#endif
