// SPDX-License-Identifier: Apache-2.0
// What is sent while messages of the channel are handled, handed to the kernel together.
//
// A turn of the reader handles some messages; what they send leaves at its end, in the order in which it was sent, with
// one system call for as many in a row as go over one socket. A message whose copies are gathered waits to be entered
// into the books (books.h), so that the books know what became of them. A copy that the kernel refuses is sent once
// more by itself, over its lane, as any other (send_lanes.h). When it is refused again that is counted, taken
// back from the books, and the relay is told, which traces it.
//
// Nothing that can be seen is to change by this. So nothing is gathered while each send is traced or somebody watches
// messages, and before a line is logged all that waits is sent, so that what there is to say of it comes first.
#ifndef PLATFORM_LINUX_OSAL_SEND_BATCH_H
#define PLATFORM_LINUX_OSAL_SEND_BATCH_H

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <span>

#include "osal/send_lanes.h"

namespace ravo::platform {

inline constexpr std::size_t send_batch_limit = 32;   // copies
inline constexpr std::size_t send_batch_size = 2048;  // bytes of one: longer than any that a device takes

// Makes books and log ask for what waits. May be called again.
void batch_open();

// A turn begins, and ends: then nothing waits any more.
void batch_begin();
void batch_end();

// Whether a copy that is sent now over sockets of these lanes may be gathered.
bool batch_takes(const send_lanes &lanes);

// Gathers a copy of the message in hand. to: for the kernel, at most a sockaddr_storage. Returns its length, or 0 when
// it is too long: then it is to be sent by itself.
ssize_t batch_add(send_lanes &lanes, std::uint32_t destination, std::span<const iovec> parts, const sockaddr *to,
                  socklen_t to_length);

// Sends what waits, and lets its messages be entered into the books.
void batch_flush();

}  // namespace ravo::platform

#endif
