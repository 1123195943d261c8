// The devices that the channel listens on.
#ifndef PLATFORM_LINUX_CHANNEL_TAPS_H
#define PLATFORM_LINUX_CHANNEL_TAPS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>

#include "gate/gate.h"

namespace ravo::platform {

enum class tap_state {
    gone,    // not listened on; what came in before may still be in the queue
    heard,   //
    failed,  // cannot be listened on
};

struct tap {
    std::string name;
    bool uplink = false;
    tap_state state = tap_state::gone;
    std::size_t place = gate::no_place;  // at the gate
    std::uint64_t crowded = 0;           // of the gate's count, what was told
};

class tap_table {
  public:
    // Makes the taps those that the inventory wants, at the gate too, and the trap's devices those. What cannot be
    // listened on is logged, once.
    void follow(gate &at);

    // The tap of a device, NULL when there is none.
    const tap *find(int kernel_ifindex) const {
        const auto found = taps_.find(kernel_ifindex);
        return found == taps_.end() ? nullptr : &found->second;
    }

    // Messages that found no room in the queue since the last call.
    std::uint64_t take_crowded(const gate &at);

    // Forgets the taps that are gone: nothing of them is in the queue any more.
    void forget_gone(gate &at);

  private:
    static int open(gate &at, int kernel_ifindex, tap &t);
    static void hear(gate &at, int kernel_ifindex, tap &t);

    std::unordered_map<int, tap> taps_;  // by the kernel's device number
    bool some_gone_ = false;
};

}  // namespace ravo::platform

#endif
