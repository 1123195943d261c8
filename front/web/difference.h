// SPDX-License-Identifier: Apache-2.0
// What differs between two configurations.
#ifndef FRONT_WEB_DIFFERENCE_H
#define FRONT_WEB_DIFFERENCE_H

#include <string>
#include <string_view>
#include <vector>

namespace ravo::web {

// The lines that lead from one text to the other, in order: "-" and a line that goes, "+" and one that comes, " " and
// the section line ("interface vlan10") that such lines are below. Comment lines ("!") and empty ones do not count.
std::vector<std::string> difference(std::string_view before, std::string_view after);

}  // namespace ravo::web

#endif
