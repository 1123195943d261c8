// SPDX-License-Identifier: Apache-2.0
// The devices that the channel listens on.
#ifndef PLATFORM_LINUX_CHANNEL_TAPS_H
#define PLATFORM_LINUX_CHANNEL_TAPS_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>

#include "channel/limits.h"
#include "gate/gate.h"

namespace ravo::platform {

enum class tap_state {
    gone,    // not listened on; what came in before may still be in the queue
    heard,   //
    failed,  // cannot be listened on
};

// Of the gate's counts of a tap, what was handed in already.
struct tap_tally {
    std::uint64_t crowded = 0;
    std::uint64_t limited = 0;
    std::uint64_t limited_tagged = 0;
    std::uint64_t limited_uncounted = 0;
    std::map<std::uint32_t, std::uint64_t> limited_by_tag;  // by VLAN id
    std::uint64_t in_log = 0;                               // not reported in the log yet
    std::int64_t next_line_s = 0;                           // and not to be before that
};

struct tap {
    int kernel_ifindex = 0;
    std::string name;
    bool uplink = false;
    tap_state state = tap_state::gone;
    std::size_t place = gate::no_place;  // at the gate
    tap_tally told;
};

class tap_table {
  public:
    // Makes the taps those that the inventory wants, at the gate too, and the trap's devices those. What cannot be
    // listened on is logged, once.
    void follow(gate &at, const port_limits &limits);
    // Holds the taps to other limits.
    void set_limits(gate &at, const port_limits &limits);

    // The tap of a device, NULL when there is none.
    const tap *find(int kernel_ifindex) const {
        const auto found = taps_.find(kernel_ifindex);
        return found == taps_.end() ? nullptr : &found->second;
    }
    // The tap that has a place, NULL when none has it.
    tap *at_place(std::size_t place);

    template <typename visitor>
    void each(visitor visit) {
        for (auto &[kernel_ifindex, t] : taps_) visit(t);
    }

    // Tells whether some taps are gone, and forgets these: nothing of them is in the queue any more.
    bool some_gone() const { return some_gone_; }
    void forget_gone(gate &at);

  private:
    static int open(gate &at, tap &t);
    static void hear(gate &at, const port_limits &limits, tap &t);

    std::unordered_map<int, tap> taps_;  // by the kernel's device number
    bool some_gone_ = false;
};

}  // namespace ravo::platform

#endif
