// SPDX-License-Identifier: Apache-2.0
// The program's counts are in memory that it shares with the daemon, mapped page by page as devices come, so that
// taking a message out of the queue costs two stores and no system call. No look at the program's maps takes a system
// call, and so none takes a right. Outside the kernel the same records are the daemon's own, and the same rule is
// applied to them (admit).

#include "gate/gate.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/clock.h"
#include "gate/gate_objects.h"
#include "gate/socket_filter.h"

namespace ravo::platform {
namespace {

constexpr std::uint64_t second = 1'000'000'000;  // in nanoseconds
constexpr std::uint64_t told_together = 8;       // messages

std::string lender;
descriptor asked;  // the lender, for the gate to come
gate_keeper keeper = nullptr;
gate_objects left_over;  // of the daemon before, for the gate to come
bool was_refused = false;

std::size_t page_size() {
    static const auto size = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    return size;
}

// One side writes while the other reads.
void store(__u64 &word, std::uint64_t value) {
    __atomic_store_n(&word, value, __ATOMIC_RELAXED);
}
std::uint64_t load_word(const __u64 &word) {
    return __atomic_load_n(&word, __ATOMIC_RELAXED);
}

// What a port has used of its burst is used at another rate too: as many messages, but no more than the new burst has.
// The time until its next message is due would be another one at each rate, and might be hours at a slow one.
void keep_used(gate_port &port, std::uint64_t interval, std::uint64_t at_once) {
    const std::uint64_t old = load_word(port.interval);
    const std::uint64_t now = clock_exact_us() * 1000;
    __u64 due = load_word(port.due);
    __u64 next;
    do {
        if (due <= now) return;
        const std::uint64_t used = old == 0 ? 0 : (due - now + old - 1) / old;
        next = now + std::min(used, at_once) * interval;
    } while (!__atomic_compare_exchange_n(&port.due, &due, next, false, __ATOMIC_RELAXED, __ATOMIC_RELAXED));
}

std::uint64_t word_of(std::uint32_t high, std::uint32_t low) {
    return std::uint64_t{high} << 32 | low;
}
std::uint32_t high_half(std::uint64_t word) {
    return static_cast<std::uint32_t>(word >> 32);
}

// The kernel's objects are no files: memory of one that is shorter than it says cannot be mapped.
bool is_object(const descriptor &fd) {
    struct stat status {};
    return ::fstat(fd.get(), &status) == 0 && (status.st_mode & S_IFMT) == 0;
}

// A socket that takes the program has the program; one of another kind of program would be refused.
bool is_program(const descriptor &fd) {
    const descriptor trial(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const int number = fd.get();
    return ::setsockopt(trial.get(), SOL_SOCKET, SO_ATTACH_BPF, &number, sizeof number) == 0;
}

fault look_at_left(const gate_objects &left) {
    for (const descriptor *each : {&left.program, &left.devices, &left.ports, &left.limited_by_tag, &left.queue})
        if (!is_object(*each)) return {"it is another kind of descriptor"};
    const mapping devices(left.devices.get(), sizeof(gate_devices) * GATE_DEVICE_BUCKETS);
    const mapping tags(left.limited_by_tag.get(), sizeof(gate_tag_count) * GATE_TAG_COUNTS);
    const mapping last_ports(left.ports.get(), page_size(), sizeof(gate_port) * GATE_PORTS - page_size());
    const mapping queue(left.queue.get(), page_size());
    if (!devices || !tags || !last_ports || !queue || !is_program(left.program))
        return {"its parts are not what they should be"};
    if (load_word(static_cast<gate_queue *>(queue.get())->program) != gate_program_number())
        return {"it is another version's"};
    return {};
}

}  // namespace

// ---- Setting up ----

void gate_set_lender(const std::string &path) {
    lender = path;
    asked.reset();
}

void gate_ask_early() {
    asked.reset();
    if (!gate_may_load()) (void)gate_ask(lender, &asked);  // a refusal is said when a gate is wanted and asks again
}

void gate_set_keeper(gate_keeper keep) {
    keeper = keep;
}

fault gate_take_over(gate_objects left) {
    if (fault wrong = look_at_left(left)) return wrong;
    left_over = std::move(left);
    return {};
}

void gate_refused_before() {
    was_refused = true;
}

// What it may load itself, else what it is lent.
gate_objects gate::find_objects() {
    gate_objects own = gate_load();
    const int refused = errno;
    const bool in_vain = std::exchange(was_refused, false);
    if (own) return own;
    if (in_vain) {
        refusal_ = "it did so before the restart, and is asked again when relaying is switched on";
        return {};
    }
    fault wrong;
    if (!asked) wrong = gate_ask(lender, &asked);
    gate_objects lent;
    if (!wrong) wrong = gate_take(std::exchange(asked, {}), &lent);
    if (!lent) refusal_ = wrong ? wrong.text : std::strerror(refused);
    return lent;
}

bool gate::enter_kernel() {
    gate_objects objects = std::exchange(left_over, {});
    const bool is_left = static_cast<bool>(objects);
    if (!is_left) objects = find_objects();
    if (!objects) return false;
    mapping devices(objects.devices.get(), sizeof(gate_devices) * GATE_DEVICE_BUCKETS);
    mapping tags(objects.limited_by_tag.get(), sizeof(gate_tag_count) * GATE_TAG_COUNTS);
    mapping queue(objects.queue.get(), page_size());
    if (!devices || !tags || !queue) {
        refusal_ = std::strerror(errno);
        return false;
    }
    limited_by_tag_ = std::move(tags);
    queue_ = std::move(queue);
    devices_ = std::move(devices);
    store(this->queue()->program, gate_program_number());
    if (is_left)
        begin_anew();
    else if (keeper != nullptr)
        keeper(objects);
    taken_ = load_word(this->queue()->taken);
    program_ = std::move(objects.program);
    ports_ = std::move(objects.ports);
    return true;
}

// What the daemon before wrote and counted is forgotten. Its devices stay until ours are let in, so that nothing is
// missed meanwhile.
void gate::begin_anew() {
    for (std::size_t i = 0; i < GATE_TAG_COUNTS; ++i) {
        gate_tag_count &slot = kernel_tags()[i];
        if (load_word(slot.tag) == 0) continue;
        store(slot.count, 0);
        __atomic_store_n(&slot.tag, 0, __ATOMIC_RELEASE);
    }
    store(queue()->taken, load_word(queue()->passed));
    auto *const table = static_cast<gate_devices *>(devices_.get());
    for (std::size_t i = 0; i < GATE_DEVICE_BUCKETS; ++i)
        for (__u64 &slot : table[i].slots)
            if (load_word(slot) != 0) strangers_.insert(&slot);
}

void gate::drop_strangers() {
    for (__u64 *const slot : strangers_) store(*slot, 0);
    strangers_.clear();
}

int gate::prepare() {
    if (enter_kernel()) return 0;
    queue_ = mapping(-1, page_size());
    return queue_ ? 0 : errno;
}

// The socket keeps the program, and the program its maps. Records that were mapped stay, whoever reads them.
int gate::attach(int fd) {
    if (!queue_)
        if (const int reason = prepare(); reason != 0) return reason;
    const descriptor program = std::move(program_);
    drop_strangers();
    if (const int number = program.get(); program) {
        if (::setsockopt(fd, SOL_SOCKET, SO_ATTACH_BPF, &number, sizeof number) == 0) return 0;
        refusal_ = std::strerror(errno);
        devices_ = mapping();
    }
    return socket_take_dhcp(fd) == 0 ? 0 : errno;
}

// ---- Devices and their places ----

bool gate::map_place(std::size_t place) {
    while (place >= places_.size()) {
        mapping page(in_kernel() ? ports_.get() : -1, page_size(), in_kernel() ? pages_.size() * page_size() : 0);
        if (!page) return false;
        auto *const first = static_cast<gate_port *>(page.get());
        for (std::size_t i = 0; i < page_size() / sizeof(gate_port); ++i) places_.push_back({first + i, 0});
        pages_.push_back(std::move(page));
    }
    return true;
}

std::size_t gate::give_place() {
    const std::size_t place = freed_.empty() ? used_.size() : freed_.back();
    if (place == GATE_PORTS) errno = ENOSPC;
    if (place == GATE_PORTS || !map_place(place)) return no_place;
    *record(place) = {};
    places_[place].taken = 0;
    if (freed_.empty())
        used_.push_back(false);
    else
        freed_.pop_back();
    used_[place] = true;
    return place;
}

// The word in which a device is, or a free one for it; NULL when there is none.
__u64 *gate::device_slot(std::uint32_t device) const {
    auto *table = static_cast<gate_devices *>(devices_.get());
    __u64 *free = nullptr;
    for (std::uint32_t probe = 0; probe < GATE_DEVICE_PROBES; ++probe) {
        for (__u64 &slot : table[(device + probe) % GATE_DEVICE_BUCKETS].slots) {
            if (high_half(slot) == device) return &slot;
            if (slot == 0 && free == nullptr) free = &slot;
        }
    }
    return free;
}

int gate::let_in(int kernel_ifindex, std::size_t place) {
    if (!in_kernel()) return 0;
    const auto device = static_cast<std::uint32_t>(kernel_ifindex);
    __u64 *slot = device_slot(device);
    if (slot == nullptr && !strangers_.empty()) {
        drop_strangers();
        slot = device_slot(device);
    }
    if (slot == nullptr) return ENOSPC;
    strangers_.erase(slot);
    store(*slot, word_of(device, static_cast<std::uint32_t>(place)));
    return 0;
}

void gate::shut_out(int kernel_ifindex) {
    if (!in_kernel()) return;
    __u64 *slot = device_slot(static_cast<std::uint32_t>(kernel_ifindex));
    if (slot != nullptr) store(*slot, 0);  // a free one, when it was not let in
}

void gate::free_place(std::size_t place) {
    forget_tags(place);
    used_[place] = false;
    freed_.push_back(place);
}

void gate::set_rate(std::size_t place, const port_rate &rate) {
    gate_port &port = *record(place);
    const std::uint64_t interval = rate.messages == 0 ? 0 : second / rate.messages;
    const std::uint64_t at_once = std::max(rate.burst, 1U);
    const std::uint64_t burst = interval * (at_once - 1);
    if (interval != load_word(port.interval) || burst < load_word(port.burst)) keep_used(port, interval, at_once);
    store(port.burst, burst);
    store(port.interval, interval);
}

// ---- The queue ----

void gate::set_room(std::size_t messages) {
    store(queue()->room, messages);
}

// The program looks at these counts with each message that comes, mostly on another processor, to which a line of cache
// goes over with each store. A few messages do not matter to it.
void gate::take(std::size_t place) {
    place_at_gate &from = places_[place];
    if (++from.taken % told_together == 0) store(from.record->taken, from.taken);
    if (++taken_ % told_together == 0) store(queue()->taken, taken_);
}

void gate::note_left() {
    for (std::size_t place = 0; place < used_.size(); ++place)
        if (used_[place]) store(record(place)->taken, places_[place].taken);
    store(queue()->taken, taken_);
}

void gate::note_empty() {
    for (std::size_t place = 0; place < used_.size(); ++place) {
        if (!used_[place]) continue;
        places_[place].taken = load_word(record(place)->passed);
        store(record(place)->taken, places_[place].taken);
    }
    taken_ = load_word(queue()->passed);
    store(queue()->taken, taken_);
}

// ---- Limits ----

// As the program does (is_within_limit, count_limited).
bool gate::admit(std::size_t place, std::uint32_t vlan, std::uint64_t now) {
    gate_port &port = *record(place);
    if (port.interval == 0) return true;
    const std::uint64_t from = std::max<std::uint64_t>(port.due, now);
    if (from - now <= port.burst) {
        port.due = from + port.interval;
        return true;
    }
    if (vlan == 0) {
        ++port.limited;
    } else {
        ++port.limited_tagged;
        ++own_limited_tags_[{static_cast<std::uint32_t>(place), vlan}];
    }
    return false;
}

void gate::count_unread(std::size_t place, bool tagged, std::uint64_t messages) {
    gate_port &port = *record(place);
    (tagged ? port.limited_uncounted : port.limited) += messages;
}

// Processors that count a tag's first messages at once may each have taken a count for it.
void gate::each_limited_tag(const tag_visitor &visit) const {
    std::map<std::uint64_t, std::uint64_t> sums;
    for (const auto &[tag, count] : own_limited_tags_) sums[word_of(tag.first, tag.second)] += count;
    for (std::size_t i = 0; in_kernel() && i < GATE_TAG_COUNTS; ++i) {
        const std::uint64_t tag = load_word(kernel_tags()[i].tag);
        if (tag != 0) sums[tag] += load_word(kernel_tags()[i].count);
    }
    for (const auto &[tag, count] : sums)
        visit({.port = high_half(tag), .vlan = static_cast<std::uint32_t>(tag)}, count);
}

void gate::forget_tags(std::size_t place) {
    const auto port = static_cast<std::uint32_t>(place);
    own_limited_tags_.erase(own_limited_tags_.lower_bound({port, 0}), own_limited_tags_.lower_bound({port + 1, 0}));
    for (std::size_t i = 0; in_kernel() && i < GATE_TAG_COUNTS; ++i) {
        gate_tag_count &slot = kernel_tags()[i];
        const std::uint64_t tag = load_word(slot.tag);
        if (tag == 0 || high_half(tag) != port) continue;
        store(slot.count, 0);
        __atomic_store_n(&slot.tag, 0, __ATOMIC_RELEASE);
    }
}

}  // namespace ravo::platform
