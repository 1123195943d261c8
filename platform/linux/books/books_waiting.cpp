// SPDX-License-Identifier: Apache-2.0
// Messages stay in their places from the time they are taken: first those that wait, in their order, then the one in
// hand. So none is copied to make it wait or to enter it.
#include "books/books_waiting.h"

#include <array>
#include <utility>

#include "books/book_watchers.h"
#include "log/log_subject.h"

namespace ravo::platform {

namespace {

void (*finish_waiting)() = nullptr;
std::array<book_message, books_waiting_limit + 1> places;
std::size_t waiting = 0;

}  // namespace

book_message *in_hand = nullptr;

book_message &next_place() {
    return places[waiting];
}

void leave_waiting() {
    ++waiting;
    in_hand = nullptr;
}

void enter(const book_message &m, std::span<const std::uint8_t> frame) {
    message_enter(m);
    if (watchers != 0) watchers_tell(m.entry, frame);
}

void books_on_wait(void (*finish)()) {
    finish_waiting = finish;
}

void books_settle_waiting() {
    const bool some_wait = waiting != 0 || (in_hand != nullptr && in_hand->waits);
    if (some_wait && finish_waiting != nullptr) finish_waiting();
}

bool books_may_wait() {
    return in_hand != nullptr && waiting < books_waiting_limit && watchers == 0 && !log_subject_waits();
}

std::size_t books_wait() {
    in_hand->waits = true;
    return waiting;
}

void books_copy_refused(std::size_t place, std::uint32_t server) {
    message_refused(places[place], server);
}

void books_take_up(std::size_t place, const std::function<void()> &during) {
    if (place >= waiting) return during();  // it is in hand
    book_message *const before = std::exchange(in_hand, &places[place]);
    begin_subject(*in_hand);
    during();
    end_subject(*in_hand);
    in_hand = before;
    if (before != nullptr) begin_subject(*before);
}

void books_enter_waiting() {
    book_message *const before = std::exchange(in_hand, nullptr);
    const std::size_t count = std::exchange(waiting, 0);
    for (std::size_t place = 0; place < count; ++place) {
        message_relate(places[place]);
        enter(places[place], {});
    }
    if (before == nullptr) return;
    // The message in hand does not wait any more, and none does before it.
    before->waits = false;
    if (count != 0) places.front() = *before;
    in_hand = &places.front();
}

}  // namespace ravo::platform
