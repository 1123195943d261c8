// SPDX-License-Identifier: Apache-2.0
// The gate's program and its maps in the kernel, and how a daemon without the right to load them comes by them.
//
//   whoever may load programs                         the daemon
//                                              <----    gate_ask
//     gate_lend: loads, sends the descriptors  ---->    gate_take
//
// Each asker gets a program and maps of its own, fresh; they go when its last descriptor and its socket do, so nothing
// is left lying about for the next.
#ifndef PLATFORM_LINUX_GATE_GATE_OBJECTS_H
#define PLATFORM_LINUX_GATE_GATE_OBJECTS_H

#include <cstdint>
#include <string>

#include "base/owners.h"
#include "fault.h"

namespace ravo::platform {

// Whole or empty.
struct gate_objects {
    descriptor program;
    descriptor devices;
    descriptor ports;
    descriptor limited_by_tag;
    descriptor queue;

    explicit operator bool() const { return static_cast<bool>(program); }
};

// The number of this version's program, which that of another version has not, in all likelihood.
std::uint64_t gate_program_number();

// Tells whether the process has the right to load programs.
bool gate_may_load();

// Loads them. Empty and errno when the kernel refuses that.
gate_objects gate_load();

// Asks the lender that listens at this path and waits for nothing. The fault says why nobody can be asked, or that it
// is not root's. No lender at all is no fault: *lender is none then, too.
fault gate_ask(const std::string &path, descriptor *lender);

// Takes what was asked for, as long as that takes but at most a few seconds. The fault says why it is refused; without
// a lender *lent is empty as well.
fault gate_take(const descriptor &lender, gate_objects *lent);

// Answers who is at the other end of a socket: loads a program with its maps and sends them, or why the kernel refuses
// them. The fault, if any: why it could not answer.
fault gate_lend(int fd);

}  // namespace ravo::platform

#endif
