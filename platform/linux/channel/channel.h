// The layer-2 packet channel: DHCP messages with the port and VLAN they came in on.
#ifndef PLATFORM_LINUX_CHANNEL_CHANNEL_H
#define PLATFORM_LINUX_CHANNEL_CHANNEL_H

#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace ravo::platform {

// Opens the channel: one descriptor that is readable while a message waits on any tap. Returns it, or -1 and errno. One
// channel at a time; EBUSY when one is open.
int channel_open();
// Tells whether a descriptor is the channel's.
bool channel_owns(int fd);
// Receives the next message in the layout of osal.h; -1 and EAGAIN when there is none.
ssize_t channel_receive(void *buffer, std::size_t size, int flags, struct sockaddr *from, socklen_t *from_length);
// The number of messages that were read from the kernel together with the one received last, and wait in memory. A
// reader may go on receiving that many before it waits again, which saves it a system call for each; it need not, the
// channel stays readable.
std::size_t channel_pending();
// Closes the channel and its taps. Returns 0.
int channel_close();

// Frames by outcome since the process started.
struct channel_counters {
    std::uint64_t delivered = 0;
    std::uint64_t truncated = 0;  // shorter than its headers say or need, or its lengths contradict each other
    std::uint64_t fragment = 0;   // first part of a fragmented packet (the kernel's filter refuses later ones)
    std::uint64_t bad_ip_checksum = 0;
    std::uint64_t bad_udp_checksum = 0;
    std::uint64_t unknown_vlan = 0;  // no VLAN interface for the tag or PVID
    std::uint64_t unknown_port = 0;  // came in on a device that is no port any more
    std::uint64_t overrun = 0;       // lost in the kernel before it was read
};
const channel_counters &channel_statistics();
// Messages lost in the kernel since the last call of channel_forget_lost, or since the start.
std::uint64_t channel_lost();
void channel_forget_lost();

}  // namespace ravo::platform

#endif
