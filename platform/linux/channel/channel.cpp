// The channel is an epoll descriptor that watches one tap per device on which frames first enter the box. The daemon
// watches that one descriptor and takes one message per call; behind it the frames of a tap are read in batches, so
// that under load a system call serves many messages. While a batch is not used up an eventfd beside the taps keeps the
// descriptor readable, and the event loop gets its turn between any two messages. Taps take turns batch by batch: a
// flood on one port delays the others by a batch each, and no more.
//
// The inventory says which devices are to be listened on, and whenever that changes only the difference is opened and
// closed. A device that went down needs nothing, its tap works again when it comes up. A device that was removed and
// made again under the same number leaves a tap that hears nothing: it is looked for shortly after the device went
// down.

#include "channel/channel.h"

#include <arpa/inet.h>
#include <event2/event.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/loop.h"
#include "books/books.h"
#include "channel/channel_frame.h"
#include "channel/channel_tap.h"
#include "inventory/inventory.h"
#include "log/log.h"
#include "osal.h"
#include "trap/trap.h"

namespace ravo::platform {
namespace {

constexpr std::uint16_t dhcp_server_port = 67;
constexpr std::size_t in_ip_part_destination = 12;
constexpr std::uint64_t pending_mark = ~std::uint64_t{0};  // epoll's word for the eventfd; a tap's is its device number
constexpr std::size_t frames_per_call = frame_batch::capacity;  // frames dropped in one call before others get a turn
constexpr int checks_after_down = 10;                           // a removal follows the device's going down closely
constexpr timeval check_interval{.tv_sec = 1, .tv_usec = 0};

struct tap {
    std::string name;
    bool uplink = false;
    descriptor socket;    // closed: could not be opened yet
    int checks_left = 0;  // how often it is still to be checked whether the device was removed
    bool failure_logged = false;
};

struct open_channel {
    descriptor epoll;
    descriptor pending;     // eventfd, readable while a batch is not used up
    descriptor udp_holder;  // keeps UDP port 67, receives nothing
    event_ptr check_timer;
    std::map<int, tap> taps;  // by the kernel's device number
    frame_batch batch;
    int batch_ifindex = 0;  // the device the batch came in on
    bool marked_pending = false;
    std::array<epoll_event, 64> ready{};  // taps that had frames when last asked
    std::size_t ready_next = 0;
    std::size_t ready_count = 0;
};

std::unique_ptr<open_channel> channel;
channel_counters counters;
std::uint64_t forgotten_lost = 0;  // of the overruns, those that are not told any more

int watch(open_channel &c, int fd, std::uint64_t word) {
    epoll_event interest{};
    interest.events = EPOLLIN;
    interest.data.u64 = word;
    return ::epoll_ctl(c.epoll.get(), EPOLL_CTL_ADD, fd, &interest);
}

// Returns 0 or the reason.
int open_tap(open_channel &c, int kernel_ifindex, tap &t) {
    t.checks_left = 0;
    t.socket = tap_open(kernel_ifindex);
    if (!t.socket) return errno;
    if (watch(c, t.socket.get(), static_cast<std::uint64_t>(kernel_ifindex)) == 0) return 0;
    const int reason = errno;
    t.socket.reset();
    return reason;
}

void count_overruns(const tap &t) {
    if (t.socket) counters.overrun += tap_take_overruns(t.socket.get());
}

void close_tap(tap &t) {
    count_overruns(t);
    t.socket.reset();
}

bool needs_check(const tap &t) {
    return !t.socket || t.checks_left > 0;
}

// Only what is heard is trapped: what nobody hears would be lost.
void trap_heard_devices(const open_channel &c) {
    std::vector<tap_device> heard;
    for (const auto &[kernel_ifindex, t] : c.taps)
        if (t.socket && !t.uplink) heard.push_back({kernel_ifindex, t.name});
    trap_follow(std::move(heard));
}

// Opens what is not open, and anew what lost its device. Returns 0, or the last reason why a tap could not be opened.
int repair_taps(open_channel &c) {
    int failure = 0;
    bool check_again = false;
    for (auto &[kernel_ifindex, t] : c.taps) {
        if (t.checks_left > 0) --t.checks_left;
        if (t.socket && t.checks_left > 0 && !tap_is_bound(t.socket.get())) close_tap(t);
        if (!t.socket) {
            const int reason = open_tap(c, kernel_ifindex, t);
            // A device that is gone is no failure: the inventory is about to say so.
            if (reason != 0 && reason != ENODEV && !t.failure_logged) {
                log_line(log_level_error, "cannot listen on device %s: %s; trying again", t.name.c_str(),
                         std::strerror(reason));
            }
            t.failure_logged = reason != 0 && reason != ENODEV;
            if (reason != 0) failure = reason;
        }
        check_again = check_again || needs_check(t);
    }
    if (check_again) event_add(c.check_timer.get(), &check_interval);
    trap_heard_devices(c);
    return failure;
}

// Makes the taps those the inventory wants. Returns as repair_taps.
int follow_inventory(open_channel &c) {
    std::map<int, tap_device> wanted;
    for (tap_device &device : inventory_taps()) wanted.emplace(device.kernel_ifindex, std::move(device));
    for (auto it = c.taps.begin(); it != c.taps.end();) {
        if (wanted.contains(it->first)) {
            ++it;
        } else {
            close_tap(it->second);
            it = c.taps.erase(it);
        }
    }
    for (auto &[kernel_ifindex, device] : wanted) {
        tap &t = c.taps[kernel_ifindex];
        t.name = std::move(device.name);
        t.uplink = device.uplink;
    }
    return repair_taps(c);
}

void on_check_timer(evutil_socket_t, short, void *) {
    if (channel) (void)repair_taps(*channel);  // logged there, and tried again by the timer
}

// A receive failed: a device went down (ENETDOWN, told once), or something that passes.
void on_tap_error(open_channel &c, tap &t, int reason) {
    if (reason == EAGAIN || reason == EINTR) return;
    if (reason != ENETDOWN) {
        log_line(log_level_warning, "receiving on device %s: %s", t.name.c_str(), std::strerror(reason));
    }
    t.checks_left = checks_after_down;
    event_add(c.check_timer.get(), &check_interval);
}

// Reads from the tap named in one of epoll's words. Returns whether the batch holds frames now.
bool read_tap(open_channel &c, std::uint64_t word) {
    if (word == pending_mark) return false;
    const int kernel_ifindex = static_cast<int>(word);
    const auto found = c.taps.find(kernel_ifindex);
    if (found == c.taps.end() || !found->second.socket) return false;
    if (c.batch.receive(found->second.socket.get()) <= 0) {
        on_tap_error(c, found->second, errno);
        return false;
    }
    c.batch_ifindex = kernel_ifindex;
    found->second.checks_left = 0;
    return true;
}

// Fills the used-up batch from the next tap that has frames. Returns whether there was one.
bool refill(open_channel &c) {
    while (c.ready_next < c.ready_count) {
        if (read_tap(c, c.ready[c.ready_next++].data.u64)) return true;
    }
    const int count = ::epoll_wait(c.epoll.get(), c.ready.data(), static_cast<int>(c.ready.size()), 0);
    c.ready_next = 0;
    c.ready_count = count > 0 ? static_cast<std::size_t>(count) : 0;
    while (c.ready_next < c.ready_count) {
        if (read_tap(c, c.ready[c.ready_next++].data.u64)) return true;
    }
    return false;
}

// Keeps the channel readable exactly while frames wait that the kernel does not know of any more.
void mark_pending(open_channel &c) {
    const bool waiting = c.batch.waiting() > 0;
    if (waiting == c.marked_pending) return;
    // Neither call can fail: the counter goes from 0 to 1 and back.
    if (waiting) {
        (void)eventfd_write(c.pending.get(), 1);
    } else {
        eventfd_t value;
        (void)eventfd_read(c.pending.get(), &value);
    }
    c.marked_pending = waiting;
}

// Counts a dropped frame. Returns the outcome that the books know it by, OUTCOME_NONE for what is no message at all.
relay_outcome count_drop(frame_result result) {
    switch (result) {
        case frame_result::truncated:
            ++counters.truncated;
            return OUTCOME_TRUNCATED;
        case frame_result::fragment:
            ++counters.fragment;
            return OUTCOME_FRAGMENT;
        case frame_result::bad_ip_checksum:
            ++counters.bad_ip_checksum;
            return OUTCOME_BAD_IP_CHECKSUM;
        case frame_result::bad_udp_checksum:
            ++counters.bad_udp_checksum;
            return OUTCOME_BAD_UDP_CHECKSUM;
        case frame_result::unknown_vlan:
            ++counters.unknown_vlan;
            return OUTCOME_UNKNOWN_VLAN;
        case frame_result::ok:
        case frame_result::not_ours:
            break;
    }
    return OUTCOME_NONE;
}

book_tag tag_of(const frame_aux &aux) {
    return aux.tagged ? book_tag{.protocol = aux.tpid, .tci = aux.tci} : book_tag{};
}

// Drops a broken frame; its place is told as far as it can be known.
void drop_frame(int kernel_ifindex, std::span<const std::uint8_t> bytes, const frame_aux &aux, frame_result result) {
    constexpr std::uint16_t vid_bits = 0x0FFF;
    const std::uint16_t vid = aux.tci & vid_bits;
    ingress in;
    // unknown: the totals hold it alone
    if (inventory_classify(kernel_ifindex, aux.tagged && vid != 0, vid, &in) == ingress_result::elsewhere) return;
    const relay_outcome outcome = count_drop(result);
    if (outcome == OUTCOME_NONE) return;
    books_drop(outcome, in.vlan, in.port_ifindex, bytes, {}, tag_of(aux));
}

// A frame that came in on an uplink. Whoever answers needs no VLAN; who asks does. On an uplink that is no port, what
// is for others is none of the relay's business.
ingress_result classify_uplink(const dhcp_frame &frame, std::span<const std::uint8_t> message, const ingress &in) {
    constexpr std::uint8_t bootreply = 2;  // RFC 2131 section 2: op
    std::uint32_t destination;
    std::memcpy(&destination, frame.ip_part.data() + in_ip_part_destination, sizeof destination);
    const bool ours = inventory_is_interface_address(destination);
    if (ours && !message.empty() && message.front() == bootreply) return ingress_result::ok;
    return ours || in.port_ifindex != 0 ? ingress_result::unknown_vlan : ingress_result::elsewhere;
}

// Checks and classifies one frame; what is dropped is counted. Returns whether it is to be delivered.
bool examine(int kernel_ifindex, std::span<const std::uint8_t> bytes, const frame_aux &aux, dhcp_frame *frame,
             ingress *in) {
    const frame_result result = channel_frame_decode(bytes, aux, frame);
    if (result != frame_result::ok) {
        drop_frame(kernel_ifindex, bytes, aux, result);
        return false;
    }
    // A VLAN id of 0 is a priority tag, which says nothing about the VLAN.
    const bool tagged = frame->tagged && frame->vid != 0;
    const std::span<const std::uint8_t> message = frame->udp.subspan(channel_udp_header_size);
    ingress_result place = inventory_classify(kernel_ifindex, tagged, frame->vid, in);
    if (place == ingress_result::uplink) place = classify_uplink(*frame, message, *in);
    switch (place) {
        case ingress_result::ok:
            ++counters.delivered;
            books_open(in->vlan, in->port_ifindex, bytes, message, tag_of(aux));
            return true;
        case ingress_result::unknown_vlan:
            ++counters.unknown_vlan;
            books_drop(OUTCOME_UNKNOWN_VLAN, 0, in->port_ifindex, bytes, message, tag_of(aux));
            return false;
        case ingress_result::unknown_port:
            ++counters.unknown_port;
            books_drop(OUTCOME_UNKNOWN_PORT, 0, 0, bytes, message, tag_of(aux));
            return false;
        case ingress_result::uplink:
        case ingress_result::elsewhere:
            return false;
    }
    return false;
}

void fill_source(const ingress &in, sockaddr *from, socklen_t *from_length) {
    if (from == nullptr || from_length == nullptr) return;
    std::array<std::uint8_t, OSAL_CHANNEL_NAME_SIZE> record{};
    const sa_family_t family = OSAL_AF_CHANNEL;
    std::memcpy(record.data(), &family, sizeof family);
    std::memcpy(record.data() + OSAL_CHANNEL_PORT, &in.port_ifindex, sizeof in.port_ifindex);
    std::memcpy(record.data() + OSAL_CHANNEL_VLAN, &in.vlan, sizeof in.vlan);
    *from_length = std::min<socklen_t>(*from_length, record.size());
    std::memcpy(from, record.data(), *from_length);
}

// Takes UDP port 67, without which the kernel would tell servers that nobody is there. The address is bound before it
// is made shareable: deliberate, so that a program that receives on the port already keeps its datagrams.
void hold_udp_port(open_channel &c) {
    descriptor holder(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(dhcp_server_port);
    const int one = 1;
    if (holder && socket_refuse_all(holder.get()) == 0 &&
        ::bind(holder.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) {
        // The relay's own listener may share the port. Cannot fail on a UDP socket.
        (void)::setsockopt(holder.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        c.udp_holder = std::move(holder);
        return;
    }
    if (errno == EADDRINUSE) {
        log_line(log_level_warning,
                 "UDP port 67 is in use by another program, which sees the clients' and servers' messages too; stop "
                 "it if it answers or relays them");
        return;
    }
    log_line(log_level_warning, "cannot hold UDP port 67: %s; servers may be told that the port is unreachable",
             std::strerror(errno));
}

int fail_open(int reason) {
    trap_release();
    channel.reset();
    errno = reason;
    return -1;
}

}  // namespace

int channel_open() {
    if (channel) {
        errno = EBUSY;
        return -1;
    }
    channel = std::make_unique<open_channel>();
    open_channel &c = *channel;
    c.epoll.reset(::epoll_create1(EPOLL_CLOEXEC));
    c.pending.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    c.check_timer.reset(evtimer_new(loop_base(), on_check_timer, nullptr));
    if (!c.epoll || !c.pending) return fail_open(errno);
    if (!c.check_timer) return fail_open(ENOMEM);
    if (watch(c, c.pending.get(), pending_mark) != 0) return fail_open(errno);

    const int failure = follow_inventory(c);
    if (failure == EPERM || failure == EACCES) return fail_open(failure);
    hold_udp_port(c);
    inventory_on_change([] {
        if (channel) (void)follow_inventory(*channel);  // logged there, and tried again by the timer
    });
    return c.epoll.get();
}

bool channel_owns(int fd) {
    return channel && fd >= 0 && channel->epoll.get() == fd;
}

std::size_t channel_pending() {
    return channel ? channel->batch.waiting() : 0;
}

ssize_t channel_receive(void *buffer, std::size_t size, int flags, struct sockaddr *from, socklen_t *from_length) {
    if (!channel) {
        errno = EBADF;
        return -1;
    }
    open_channel &c = *channel;
    books_close();  // the bytes of the message before are about to be overwritten
    dhcp_frame frame;
    ingress in;
    bool found = false;
    for (std::size_t examined = 0; !found && examined < frames_per_call; ++examined) {
        if (c.batch.waiting() == 0 && !refill(c)) break;
        frame_aux aux;
        const std::span<const std::uint8_t> bytes = c.batch.next(&aux);
        found = examine(c.batch_ifindex, bytes, aux, &frame, &in);
    }
    mark_pending(c);
    if (!found) {
        errno = EAGAIN;
        return -1;
    }
    fill_source(in, from, from_length);
    const std::size_t whole = channel_frame_copy(frame, buffer, size);
    return static_cast<ssize_t>((flags & MSG_TRUNC) != 0 ? whole : std::min(whole, size));
}

int channel_close() {
    if (!channel) return 0;
    books_close();
    trap_release();
    inventory_on_change(nullptr);
    for (const auto &[kernel_ifindex, t] : channel->taps) count_overruns(t);
    channel.reset();
    return 0;
}

const channel_counters &channel_statistics() {
    if (channel) {
        for (const auto &[kernel_ifindex, t] : channel->taps) count_overruns(t);
    }
    return counters;
}

std::uint64_t channel_lost() {
    return channel_statistics().overrun - forgotten_lost;
}

void channel_forget_lost() {
    forgotten_lost = channel_statistics().overrun;
}

}  // namespace ravo::platform
