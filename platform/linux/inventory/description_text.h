// SPDX-License-Identifier: Apache-2.0
// The text of a switch description, before it is read as TOML: the parser takes some characters beyond ASCII for
// impossible, in places where none of them is allowed anyway, so it is shown none.
#ifndef PLATFORM_LINUX_INVENTORY_DESCRIPTION_TEXT_H
#define PLATFORM_LINUX_INVENTORY_DESCRIPTION_TEXT_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace ravo::platform {

struct text_fault {
    std::size_t at = 0;  // in bytes, from the beginning of the text
    std::string what;    // for a person
};

// Fills in *ascii: the text with "?" for each character of its comments that is not ASCII, with such characters escaped
// in double quotes, and without a byte order mark, so that lines stay, and columns where nothing is escaped. Returns
// the first fault: what is not UTF-8, and what is not ASCII anywhere else.
[[nodiscard]] std::optional<text_fault> ascii_of_description(std::string_view text, std::string *ascii);

}  // namespace ravo::platform

#endif
