// SPDX-License-Identifier: Apache-2.0
// Who is called with each message that is entered into the books (books_watch, books_unwatch).
#ifndef PLATFORM_LINUX_BOOKS_BOOK_WATCHERS_H
#define PLATFORM_LINUX_BOOKS_BOOK_WATCHERS_H

#include <cstdint>
#include <span>

#include "books/books.h"

namespace ravo::platform {

extern unsigned watchers;  // how many there are
// frame: as received, empty where it is gone already.
void watchers_tell(const book_entry &entry, std::span<const std::uint8_t> frame);

}  // namespace ravo::platform

#endif
