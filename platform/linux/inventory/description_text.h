// SPDX-License-Identifier: Apache-2.0
// The text of a switch description, before it is read as TOML: the parser takes some characters for impossible where
// they cannot stand anyway, and must not be shown them.
#ifndef PLATFORM_LINUX_INVENTORY_DESCRIPTION_TEXT_H
#define PLATFORM_LINUX_INVENTORY_DESCRIPTION_TEXT_H

#include <cstddef>
#include <optional>
#include <string_view>

namespace ravo::platform {

struct text_fault {
    std::size_t at;    // in bytes, from the beginning of the text
    const char *what;  // for a person
};

// Looks for the first thing that no description has: what is not UTF-8, and, outside quotes and comments, what is not
// ASCII. A byte order mark may begin the text.
[[nodiscard]] std::optional<text_fault> find_text_fault(std::string_view text);

}  // namespace ravo::platform

#endif
