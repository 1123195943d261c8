// SPDX-License-Identifier: Apache-2.0
// Long output, page by page.
#ifndef FRONT_RAVOSH_PAGER_H
#define FRONT_RAVOSH_PAGER_H

#include <cstddef>
#include <string_view>

namespace ravo::client {

// Shows text on the terminal. lines: rows of a page, 0: all at once. Between pages the person chooses: space for the
// next page, Enter for one more line, q or Ctrl-C for no more. ended: as of terminal_read_key; no more then, too.
void page_text(std::string_view text, std::size_t lines, bool (*ended)());

}  // namespace ravo::client

#endif
