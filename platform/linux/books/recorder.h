// SPDX-License-Identifier: Apache-2.0
// The flight recorder: the last messages, with a share for every port.
//
// It holds a fixed number of messages. When it is full a new one takes the place of the oldest of the port that has
// most of them in it: a port that floods overwrites what it sent itself, and the messages of the others stay as long as
// they are fewer.
#ifndef PLATFORM_LINUX_BOOKS_RECORDER_H
#define PLATFORM_LINUX_BOOKS_RECORDER_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>

#include "books/books.h"

namespace ravo::platform {

// Makes room for a number of messages, and empties the recorder. Returns false, and changes nothing, when there is no
// memory for it.
bool recorder_set_size(std::size_t messages);
std::size_t recorder_size();

// Takes in a message, the newest. Nothing is allocated.
void recorder_keep(const book_entry &entry);

// Forgets all messages.
void recorder_clear();

// Forgets a client's messages, of a part of the recorder at a time. first: where to begin, 0 at first. Returns where to
// go on, 0 when all was looked at.
std::size_t recorder_forget(const std::array<std::uint8_t, 6> &client, std::size_t first);

// The messages, newest first.
void recorder_each(const std::function<void(const book_entry &entry)> &visit);

}  // namespace ravo::platform

#endif
