// SPDX-License-Identifier: Apache-2.0
// The other side of the descriptor store (descriptor_store.h), for where no init system keeps anything: what a daemon
// gives its supervisor to keep, and what the next daemon gets of it. What comes with it is believed as little as
// anything else from a process that reads what strangers send.
#ifndef PLATFORM_LINUX_PROCESS_KEPT_DESCRIPTORS_H
#define PLATFORM_LINUX_PROCESS_KEPT_DESCRIPTORS_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "base/owners.h"

namespace ravo::platform {

class kept_descriptors {
  public:
    static constexpr std::size_t most = 32;

    // Does what a message says (sd_notify(3): FDSTORE=1 or FDSTOREREMOVE=1, and FDNAME=), with what came with it: one
    // descriptor that is to be kept. One more than there may be, and what has no name that can be passed on, is closed.
    void take(std::string_view message, std::vector<descriptor> came);

    // Gives all to the program that this process is about to become: from number 3 on, as sd_listen_fds(3) has it, and
    // another descriptor behind them. Whatever has these numbers is closed. Only for a process that becomes another
    // one. behind: its number now; returns the one that the program finds it at, -1 and errno when there is no room for
    // them.
    int hand_over(int behind) const;

    [[nodiscard]] std::size_t size() const { return kept_.size(); }

  private:
    struct named {
        std::string name;
        descriptor fd;
    };
    std::vector<named> kept_;
};

}  // namespace ravo::platform

#endif
