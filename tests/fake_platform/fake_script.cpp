// SPDX-License-Identifier: Apache-2.0
// One script an operation: a count of calls to let pass, then a count of calls to answer.
#include "fake_script.h"

#include <array>
#include <cerrno>

namespace fake {

namespace {

std::array<std::optional<answer>, static_cast<std::size_t>(op::operations)> scripts;

std::optional<answer> &script_of(op operation) {
    return scripts[static_cast<std::size_t>(operation)];
}

}  // namespace

void script(op operation, answer what) {
    script_of(operation) = what;
}

void clear_scripts() {
    scripts = {};
}

std::optional<int> scripted(op operation) {
    std::optional<answer> &entry = script_of(operation);
    if (!entry) return std::nullopt;
    if (entry->nth > 1) {
        --entry->nth;
        return std::nullopt;
    }
    const answer now = *entry;
    if (--entry->times <= 0) entry.reset();
    errno = now.error;
    return now.result;
}

}  // namespace fake
