// SPDX-License-Identifier: Apache-2.0
// The rings through which frames come in.
//
// Where the kernel holds ports to their limits one ring is enough. Where it does not, a flood would fill it before the
// relay has seen its first message. Then devices share several rings by their numbers, so that most have none in common
// with the flooding one from the first frame on; and a device that fills its ring gets one of its own. A device that
// nobody listens on, like a bridge that passes on what came in at a port, is refused once it fills a ring.
#ifndef PLATFORM_LINUX_CHANNEL_PACKET_RINGS_H
#define PLATFORM_LINUX_CHANNEL_PACKET_RINGS_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <vector>

#include "base/owners.h"
#include "channel/packet_ring.h"
#include "fault.h"
#include "gate/fan_out.h"

namespace ravo::platform {

// Frames that a ring had no room for.
struct ring_overrun {
    int kernel_ifindex = 0;   // whose; 0: of devices that share the ring
    bool over_limit = false;  // it was over its limit then
    bool tagged = false;      // and what was read of it had VLAN tags
    std::uint64_t frames = 0;
};

class packet_rings {
  public:
    static constexpr std::size_t capacity = 5120;         // frames: a port alone may have four fifths of them waiting
    static constexpr std::size_t apart_capacity = 2048;   // of each of several
    static constexpr std::size_t own_rings = 4;           // for devices that fill theirs
    static constexpr std::size_t crowd = 64;              // frames of one device that wait fill a ring
    static constexpr std::size_t most_refused = 64;       // devices
    static constexpr unsigned calm_looks = 3;             // then a device shares a ring again
    static constexpr std::uint64_t calm_messages = 1000;  // from one look to the next

    // Opens the first ring, which receives nothing yet, so that it can be given a filter first. Returns 0, or the
    // reason as errno.
    int open();
    int first_fd() const { return members_.front().ring.fd(); }
    // Takes over what a daemon before kept: its first ring, or all of several; they receive already. apart: which of
    // the two is wanted. Returns whether it is there. What speaks against it is written to the log, and it is closed.
    bool take_over(bool apart);
    // Tells whether several sockets wait for that.
    static bool were_apart();
    // Has them kept for the next daemon, which finds there what nobody took; or no more.
    void keep();
    void forget();
    // Gives the frame taken last back, at the end.
    void leave();

    // Begins to receive. apart: with several rings, if the kernel can have that. Returns 0, or the reason as errno.
    int listen(bool apart);

    // Readable while a frame waits.
    int fd() const { return wake_ ? wake_.get() : first_fd(); }

    // Gives the frame taken last back to the kernel and takes the next one, of the rings in turn, which stays valid
    // until the next call. Returns whether there was one.
    bool take(ring_frame *out);

    // Whether the first ring has no frame waiting; how many wait in all.
    bool first_is_empty() const { return members_.front().ring.is_empty(); }
    std::size_t waiting() const;

    // Whether the device of the frame taken last fills a ring that it shares.
    bool is_crowded() const { return crowded_by_ != 0; }
    // Moves that device out of it. wanted: somebody listens on it.
    void clear(bool wanted);
    // Notes that the frame taken last was over its port's limit. now_s: of a clock that is never set. Returns whether
    // its device has a ring of its own, which is looked at once a millisecond and not for each frame.
    bool note_over_limit(bool tagged, std::int64_t now_s);
    // Refuses a device no more when somebody listens on it now.
    void devices_changed(const std::function<bool(int kernel_ifindex)> &wanted);
    // Whether the kernel knows of the changes so far.
    bool settled() const { return !stale_ && !group_.busy(); }
    // To be called once a second: gives rings back that are not needed any more.
    void look();

    // Frames that there was no room for since the last call, by ring.
    std::vector<ring_overrun> take_overruns(std::int64_t now_s);

  private:
    struct member {
        explicit member(std::size_t size) : ring(size) {}

        packet_ring ring;
        // Shared: the device that has the most frames waiting, more or less, and how many more than all others.
        int leader = 0;
        std::size_t lead = 0;
        // For devices one by one: which one has it, 0: none.
        bool own = false;
        int owner = 0;
        std::uint64_t taken = 0;  // since the last look
        bool limited = false;
        unsigned calm = 0;              // looks in a row
        std::int64_t limited_at_s = 0;  // was over its limit last
        bool limited_tagged = false;
    };

    fault take_over_all(std::vector<descriptor> left, bool apart);
    fault take_over_group(descriptor sink);
    int open_apart();
    int open_members();
    int join(member &m);
    int add_sink();
    int watch();
    void follow_leader(member &m, int kernel_ifindex);
    void set_timer(bool on);
    void all_empty();
    std::vector<fan_out_rule> rules() const;
    void apply();
    void leave_apart();

    std::vector<member> members_;
    std::size_t last_ = 0;  // whose frame was taken last
    int crowded_by_ = 0;
    fan_out group_;
    descriptor sink_;  // gets what is refused
    std::deque<int> refused_;
    descriptor wake_;   // readable when a shared ring is, or the timer was due
    descriptor timer_;  // for rings that devices have to themselves
    bool ticking_ = false;
    bool stale_ = false;  // the kernel does not know of the last change
};

}  // namespace ravo::platform

#endif
