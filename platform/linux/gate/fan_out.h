// SPDX-License-Identifier: Apache-2.0
// Packet sockets that share what comes in, by the device it came in on: each frame goes to one of them.
//
// So a device that sends more than is read fills its own socket's queue, and no other's. It takes no right beyond that
// of having packet sockets.
#ifndef PLATFORM_LINUX_GATE_FAN_OUT_H
#define PLATFORM_LINUX_GATE_FAN_OUT_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "base/owners.h"

namespace ravo::platform {

// Where the frames of one device go.
struct fan_out_rule {
    int kernel_ifindex = 0;
    unsigned member = 0;  // the sockets are numbered in the order in which they joined
};

class fan_out {
  public:
    static constexpr unsigned shared_bits = 3;
    static constexpr unsigned shared = 1U << shared_bits;  // the first members share what no rule is for
    static constexpr std::size_t most_rules = 128;

    // Takes a socket in, which must be bound. Returns 0, or the reason as errno.
    int join(int fd);
    // Takes a socket for one that another process took in. Returns whether it is in the group of those before it.
    bool take_over(int fd);
    // Says where frames go from now on. Returns 0, or the reason as errno.
    int set(const std::vector<fan_out_rule> &rules);
    // The same without waiting until every processor has seen it, as `set` may have to. One change at a time.
    // Returns whether it was begun; without a descriptor to spare it is not.
    [[nodiscard]] bool change(const std::vector<fan_out_rule> &rules);
    // Whether the last change may still be under way.
    bool busy() const { return busy_->load(std::memory_order_acquire); }

    // The shared member to which a device's frames go that no rule is for.
    static unsigned shared_member_of(int kernel_ifindex);

  private:
    int first_ = -1;  // a member's socket
    int group_ = 0;   // the kernel's number of it
    std::shared_ptr<std::atomic<bool>> busy_ = std::make_shared<std::atomic<bool>>(false);
};

}  // namespace ravo::platform

#endif
