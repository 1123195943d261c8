// SPDX-License-Identifier: Apache-2.0
// How many messages may wait to be read.
//
// A burst may fill the whole queue: it is over soon, and its clients would rather wait a little than ask again. What
// goes on for longer is overload, and then a long queue helps nobody: all wait, and as many are lost. So a standing
// queue, one that is neither empty nor short for a tenth of a second, is cut in half, and again after the next tenth,
// down to what is read in 2 ms. It has its whole room again when it was not a standing one for a second.
#ifndef PLATFORM_LINUX_CHANNEL_QUEUE_BOUND_H
#define PLATFORM_LINUX_CHANNEL_QUEUE_BOUND_H

#include <cstddef>
#include <cstdint>

namespace ravo::platform {

class queue_bound {
  public:
    static constexpr std::int64_t longest_wait_us = 2'000;  // in overload
    static constexpr std::int64_t stands_after_us = 100'000;
    static constexpr std::int64_t calm_after_us = 1'000'000;
    static constexpr std::size_t least_room = 64;
    static constexpr std::size_t messages_a_look = 32;
    static constexpr std::int64_t endless = INT64_MAX;

    // whole: messages that the queue has room for.
    explicit queue_bound(std::size_t whole) : whole_(whole), room_(whole) {}

    // Notes that a message was taken out. Returns whether it is time to look.
    bool took() { return ++taken_ % messages_a_look == 0; }
    // Notes that nothing waits.
    void ran_empty() { emptied_ = true; }

    // Looks how the queue does, and may change its room. now_us: of a clock that is never set; waited_us: how long the
    // message taken last has waited.
    void look(std::int64_t now_us, std::int64_t waited_us);
    // Ends an overload that is over, also while no messages come.
    void look_idle(std::int64_t now_us);

    // Messages that the queue may hold.
    std::size_t room() const { return room_; }
    bool overloaded() const { return room_ != whole_; }
    // How long a message may wait: once the room is as short as it gets, what it takes to read that much.
    std::int64_t patience_us() const { return overloaded() ? patience_us_ : endless; }

  private:
    void begin(std::int64_t now_us);

    std::size_t whole_;
    std::size_t room_;
    std::int64_t patience_us_ = endless;
    std::uint64_t taken_ = 0;
    bool emptied_ = true;           // since the last look
    std::int64_t since_us_ = 0;     // when it was last empty or short, or was cut
    std::uint64_t taken_then_ = 0;  // messages that had been taken out then
    std::int64_t stood_us_ = 0;     // when it was last cut
};

}  // namespace ravo::platform

#endif
