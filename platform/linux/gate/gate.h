// SPDX-License-Identifier: Apache-2.0
// The gate in front of the relay's queue: which frames are let in, from which devices, and how many.
//
// In the kernel it is a program (gate.bpf.c) that every frame of every device passes; a daemon that may not load such a
// program is lent one (gate_objects.h). Where the kernel refuses it a plain filter lets in what the relay can want from
// any device, and the daemon holds what it reads against the same limits.
#ifndef PLATFORM_LINUX_GATE_GATE_H
#define PLATFORM_LINUX_GATE_GATE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "base/mapping.h"
#include "base/owners.h"
#include "fault.h"
#include "gate/gate_records.h"

namespace ravo::platform {

struct gate_objects;

// Says where a gate asks for its program when it may not load it itself: the path of a socket (gate_objects.h). Empty,
// as at first: nowhere.
void gate_set_lender(const std::string &path);
// Asks for the first gate at once, and waits for nothing, as the lender may have to be started.
void gate_ask_early();

// The gate outlasts the process when somebody keeps its objects. keep: called with those of each gate that is made
// anew; they stay the gate's. NULL, as at first: nobody keeps them.
using gate_keeper = void (*)(const gate_objects &objects);
void gate_set_keeper(gate_keeper keep);
// Gives what the daemon before had, for the next gate to be made of: what passed it waits at the daemon's socket, and
// nobody need be asked. The fault, if any: why they are not taken.
fault gate_take_over(gate_objects left);
// Says that the daemon before had no program, for the next gate: who may not load it himself does not ask for it again,
// as that takes its time.
void gate_refused_before();

// What a port may send.
struct port_rate {
    std::uint32_t messages = 0;  // a second; 0: as many as it likes
    std::uint32_t burst = 1;     // that many at once; at least 1
    bool operator==(const port_rate &) const = default;
};

class gate {
  public:
    static constexpr std::size_t no_place = ~std::size_t{0};

    // Makes the gate, in the kernel if it can be; devices can be let in from then on. Returns 0, or the reason as
    // errno.
    int prepare();
    // Sets the gate up at a packet socket, in the place of what filter it has; makes it, unless that was done. A socket
    // that receives already misses nothing when its devices were let in before. Returns 0, or the reason as errno.
    int attach(int fd);
    bool in_kernel() const { return static_cast<bool>(devices_); }
    // Why it is not in the kernel.
    const std::string &refusal() const { return refusal_; }

    // Gives a place among the ports. Returns no_place and errno when there is none; ENOSPC: all are given.
    std::size_t give_place();
    // A place is freed when nothing of its device can be in the queue any more.
    void free_place(std::size_t place);

    // Lets a device's messages in, or no more of them. Returns 0, or the reason as errno.
    int let_in(int kernel_ifindex, std::size_t place);
    void shut_out(int kernel_ifindex);

    // From the next message on. What the port has used of its burst stays used, as far as there is as much of a burst.
    void set_rate(std::size_t place, const port_rate &rate);

    // How many messages the queue may hold; more than it has room for is no limit.
    void set_room(std::size_t messages);
    // Notes that a message of the port was taken out of the queue.
    void take(std::size_t place);
    // Notes all that was taken out, for the time when nobody is there to note it.
    void note_left();
    // Notes that the queue is empty, whatever was counted.
    void note_empty();

    // Outside the kernel: tells whether a message that was taken out is within its port's limit, and counts it if not.
    // vlan: the id of its tag, 0 for none; now: nanoseconds of a clock that is never set.
    bool admit(std::size_t place, std::uint32_t vlan, std::uint64_t now);
    // Outside the kernel: counts messages over the port's limit that nobody has read. tagged: their VLAN is not known.
    void count_unread(std::size_t place, bool tagged, std::uint64_t messages);

    // The counts of a port since its place was given.
    const gate_port &counts(std::size_t place) const { return *record(place); }
    // Calls a function with each port and VLAN tag of which messages were over the limit, and how many since the
    // place was given.
    using tag_visitor = std::function<void(const gate_tag &tag, std::uint64_t count)>;
    void each_limited_tag(const tag_visitor &visit) const;

  private:
    // A place among the ports, and what is not written to its record with every message.
    struct place_at_gate {
        gate_port *record;
        std::uint64_t taken;
    };

    gate_port *record(std::size_t place) const { return places_[place].record; }
    gate_queue *queue() const { return static_cast<gate_queue *>(queue_.get()); }
    gate_tag_count *kernel_tags() const { return static_cast<gate_tag_count *>(limited_by_tag_.get()); }
    __u64 *device_slot(std::uint32_t device) const;
    gate_objects find_objects();
    bool enter_kernel();
    void begin_anew();
    void drop_strangers();
    bool map_place(std::size_t place);
    void forget_tags(std::size_t place);

    // Of the program; none outside the kernel.
    mapping devices_;
    descriptor program_;
    descriptor ports_;
    mapping limited_by_tag_;
    std::string refusal_;
    std::unordered_set<__u64 *> strangers_;  // places in the table of devices that the daemon before let in

    mapping queue_;
    std::uint64_t taken_ = 0;     // out of the queue
    std::vector<mapping> pages_;  // of records, in their order
    std::vector<place_at_gate> places_;
    std::vector<bool> used_;                                                             // which places are
    std::vector<std::size_t> freed_;                                                     // places that were
    std::map<std::pair<std::uint32_t, std::uint32_t>, std::uint64_t> own_limited_tags_;  // outside the kernel
};

}  // namespace ravo::platform

#endif
