// SPDX-License-Identifier: Apache-2.0
// What functions return that can fail for a reason which somebody has to read: the user at the shell, the log's reader.
#ifndef COMMON_FAULT_H
#define COMMON_FAULT_H

#include <string>

namespace ravo {

// What went wrong, in one line without its end that names the file, the line, the value and the remedy as far as there
// are such. It is true when something went wrong; one without a text says that nothing did:
//
//     if (const fault wrong = log_open(target, level)) refuse(wrong.text);
struct [[nodiscard]] fault {
    std::string text{};

    explicit operator bool() const { return !text.empty(); }
};

}  // namespace ravo

#endif
