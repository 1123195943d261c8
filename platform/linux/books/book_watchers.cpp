// SPDX-License-Identifier: Apache-2.0
// Watchers are called one after the other. One that is taken off meanwhile keeps its place, empty, until all were
// called.
#include "books/book_watchers.h"

#include <list>
#include <utility>

namespace ravo::platform {

namespace {

struct watcher_slot {
    int id;  // 0: taken off
    books_watcher watcher;
};

std::list<watcher_slot> slots;  // a list: watchers may come and go while they are called
int next_watcher = 1;
bool telling = false;

void forget_those_taken_off() {
    slots.remove_if([](const watcher_slot &slot) { return slot.id == 0; });
    watchers = static_cast<unsigned>(slots.size());
}

}  // namespace

unsigned watchers = 0;

// A watcher may take itself or another off: it is forgotten once all were called.
void watchers_tell(const book_entry &entry, std::span<const std::uint8_t> frame) {
    telling = true;
    for (watcher_slot &slot : slots)
        if (slot.id != 0) slot.watcher(entry, frame);
    telling = false;
    forget_those_taken_off();
}

int books_watch(books_watcher watcher) {
    slots.push_back({next_watcher, std::move(watcher)});
    ++watchers;
    return next_watcher++;
}

void books_unwatch(int id) {
    for (watcher_slot &slot : slots)
        if (slot.id == id) slot.id = 0;
    if (!telling) forget_those_taken_off();
}

}  // namespace ravo::platform
