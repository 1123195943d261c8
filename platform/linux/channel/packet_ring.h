// SPDX-License-Identifier: Apache-2.0
// A packet socket through which frames of all devices come in, with a ring of frames in memory that the kernel fills
// and the relay reads without a system call.
#ifndef PLATFORM_LINUX_CHANNEL_PACKET_RING_H
#define PLATFORM_LINUX_CHANNEL_PACKET_RING_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "base/mapping.h"
#include "base/owners.h"
#include "channel/channel_frame.h"
#include "fault.h"

struct tpacket2_hdr;

namespace ravo::platform {

// A frame in the ring.
struct ring_frame {
    std::span<const std::uint8_t> bytes;  // from the Ethernet destination address on
    frame_aux aux;
    int kernel_ifindex = 0;    // the device it came in on
    std::int64_t time_us = 0;  // when it came in, microseconds since 1970
    bool cut = false;          // the kernel had no room for all of it
};

class packet_ring {
  public:
    // capacity: frames that the ring has room for; a multiple of 128.
    explicit packet_ring(std::size_t capacity) : capacity_(capacity) {}
    packet_ring(packet_ring &&) = default;
    // Closes the socket without waiting until every processor has let go of it, as the kernel does.
    ~packet_ring();

    // Opens the socket, non-blocking, and its ring. It receives nothing yet, so that it can be given a filter first.
    // Returns 0, or the reason as errno.
    int open();
    // Takes over the socket of a daemon before, which receives already, and its ring with what waits in it; the message
    // that the daemon before had in hand does not come again. After a fault the socket is closed, and the ring
    // is as it was made.
    fault take_over(descriptor socket);
    // Begins to receive frames that come in on any device, whatever their protocol. Returns 0, or the reason as errno.
    int listen();

    // Readable while the ring holds a frame that was not given back.
    int fd() const { return socket_.get(); }

    // Gives the frame taken last back to the kernel and takes the next one, which stays valid until the next call.
    // Returns whether there was one.
    bool take(ring_frame *out);
    // Gives the frame taken last back now.
    void give_back();

    // Whether a frame waits behind the one taken last, and how many do.
    bool is_empty() const;
    std::size_t waiting() const;
    std::size_t capacity() const { return capacity_; }

    // Frames that the kernel had no room for since the last call.
    std::uint32_t take_overruns() const;

  private:
    tpacket2_hdr *slot(std::size_t number) const;
    std::size_t behind(std::size_t number) const { return number + 1 == capacity_ ? 0 : number + 1; }
    void find_last();
    bool find_place();
    void read_whole(std::size_t size, ring_frame *out);

    std::size_t capacity_;
    descriptor socket_;
    mapping ring_;
    std::size_t at_ = 0;  // the slot that is taken, or will be taken next
    bool taken_ = false;
    std::uint32_t turn_ = 0;                 // of the frame that was taken last; never 0 once one was
    std::unique_ptr<std::uint8_t[]> large_;  // a frame that no slot has room for; made for the first one
};

}  // namespace ravo::platform

#endif
