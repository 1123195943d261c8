// SPDX-License-Identifier: Apache-2.0
// Settings that outlast their interface.
//
// The relay's record of an interface goes with the interface, and with its last address when there is no plain server.
// What an operator configured there is kept here, waits, and is put back by the same commands when the interface is
// there again with an address. What is configured for an interface before it is there waits likewise.
#ifndef PLATFORM_LINUX_SETTINGS_KEPT_SETTINGS_H
#define PLATFORM_LINUX_SETTINGS_KEPT_SETTINGS_H

#include <cstdint>
#include <string>
#include <vector>

#include "relay_access.h"

namespace ravo::cli {

// Begins to keep settings: looks at interfaces as they come and go and at the commands that are given for them. To be
// called once, before the interfaces that exist are delivered.
void kept_begin();

// Keeps settings (the beginning) or not. When it ends, what waits goes to the relay, as if it were configured now.
void kept_switch(bool keep);

// While one lives, all that waits is in records of the relay and commands change those, so that a whole configuration
// can be read and replayed in one go; at its end what is of absent interfaces waits again.
class kept_opening {
  public:
    kept_opening();
    kept_opening(const kept_opening &) = delete;
    kept_opening &operator=(const kept_opening &) = delete;
    ~kept_opening();

  private:
    bool opened_here_ = false;
    std::vector<std::uint16_t> there_;  // interfaces without an address whose settings waited
};

// Forgets all that waits.
void kept_forget_all();

enum class forget_result { forgotten, is_there, nothing };
// Forgets what is configured for a VLAN's interface that is not there; nothing is done to one that is.
forget_result kept_forget(std::uint16_t vlan);

// The sections of the interfaces whose settings wait, each under a comment that says so, in order of VLANs. trust_all:
// as in extra_lines.
std::string kept_sections(bool trust_all);

// One interface whose settings wait.
struct waiting_interface {
    std::uint16_t vlan;
    bool there;  // the interface is there, but has no address
    relay_interface settings;
};
// In order of VLANs.
std::vector<waiting_interface> kept_waiting();

}  // namespace ravo::cli

#endif
