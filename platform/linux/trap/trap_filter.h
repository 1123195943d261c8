// SPDX-License-Identifier: Apache-2.0
// The filter of the trap on one device, as the kernel has it.
#ifndef PLATFORM_LINUX_TRAP_TRAP_FILTER_H
#define PLATFORM_LINUX_TRAP_TRAP_FILTER_H

namespace ravo::platform {

// Puts the filter on a device, or anew in its own place when it is there: DHCP messages to servers that are broadcast
// on the wire are dropped once packet sockets have seen them. *own_qdisc: whether the device's place for such filters
// (qdisc clsact) was made here before; becomes true when it is made now. The filter bears a mark in a place of others.
// Returns 0, or the reason as errno (ENOENT, EOPNOTSUPP: this kernel has not what it takes).
int trap_filter_add(int kernel_ifindex, bool *own_qdisc);

// Takes the filter off a device; with_qdisc: its place too, unless others have filters there. Returns 0, also when
// there was none or the device is gone, or the reason as errno.
int trap_filter_remove(int kernel_ifindex, bool with_qdisc);

// Tells whether the filter is on a device, and whether it is in a place that was made for it.
bool trap_filter_exists(int kernel_ifindex);
bool trap_filter_has_own_qdisc(int kernel_ifindex);

}  // namespace ravo::platform

#endif
