// A tap: the packet socket that listens on one device for the layer-2 channel.
#ifndef PLATFORM_LINUX_CHANNEL_CHANNEL_TAP_H
#define PLATFORM_LINUX_CHANNEL_CHANNEL_TAP_H

#include <linux/if_packet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <utility>

#include "base/owners.h"
#include "channel/channel_frame.h"

namespace ravo::platform {

// Opens a tap on a device, non-blocking. Only unfragmented UDP datagrams over IPv4 to port 67 that come in on the
// device pass; not one frame that came before the filter was in place does. A device that is down is no failure.
// Returns a closed descriptor and errno on failure (ENODEV: no such device).
descriptor tap_open(int kernel_ifindex);

// Tells whether a tap still belongs to its device: the kernel lets go of a device that is removed.
bool tap_is_bound(int fd);

// Frames that the kernel had no room for since the last call.
std::uint32_t tap_take_overruns(int fd);

// Gives a socket a filter that nothing passes: it keeps its port and can send, and the kernel stores nothing for it.
// Returns 0, or -1 and errno.
int socket_refuse_all(int fd);

// Frames read from one tap with one system call, kept until each was looked at.
class frame_batch {
  public:
    static constexpr std::size_t capacity = 32;

    frame_batch();
    frame_batch(const frame_batch &) = delete;
    frame_batch &operator=(const frame_batch &) = delete;

    // Replaces the contents with frames that wait on a tap, at most capacity. Returns their number, or -1 and errno.
    int receive(int fd);

    std::size_t waiting() const { return count_ - next_; }
    // The next frame; there must be one waiting. Its bytes stay valid until the next receive.
    std::span<const std::uint8_t> next(frame_aux *aux);

  private:
    // Room for the largest frame. No power of two, so that the frames' first bytes do not share cache lines' places.
    static constexpr std::size_t slot_size = (channel_frame_max + 127) / 64 * 64;
    struct control {
        alignas(cmsghdr) std::array<std::uint8_t, CMSG_SPACE(sizeof(tpacket_auxdata))> bytes;
    };

    std::unique_ptr<std::uint8_t[]> slots_;  // not touched, and so not in memory, beyond the frames that came
    std::array<control, capacity> controls_;
    std::array<iovec, capacity> parts_;
    std::array<mmsghdr, capacity> headers_;
    std::size_t next_ = 0;
    std::size_t count_ = 0;
};

}  // namespace ravo::platform

#endif
