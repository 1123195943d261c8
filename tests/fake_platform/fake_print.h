// SPDX-License-Identifier: Apache-2.0
// The print service: every line is kept with its level.
#ifndef FAKE_PRINT_H
#define FAKE_PRINT_H

#include <string>
#include <vector>

namespace fake {

struct line {
    int level;
    std::string text;

    bool operator==(const line &) const = default;
};

// Printed lines, as they were printed. Lines of level 0 also go to standard error.
extern std::vector<line> printed;

// The printed lines with the source line behind the function's name replaced by '#':
// "ravo_db_if_add (#): ...".
std::vector<line> traces();

// The same of one level only, without it.
std::vector<std::string> traces(int level);

// Sets the level from which on lines are printed; 101, all of them, after a reset.
void print_from(int level);

// Forgets what was printed.
void forget_printed();

void reset_print();

}  // namespace fake

#endif
