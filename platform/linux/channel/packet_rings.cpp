// SPDX-License-Identifier: Apache-2.0
// A device that has a ring to itself may flood it without end; if each of its frames woke the relay, that would cost
// many times what refusing it does. So these rings do not wake it: a timer does, while there are any.
//
// Which device fills a ring is decided by votes: a frame of the leader is one for it, a frame of another one against
// it, and a ring that was found empty starts anew. It takes no list of devices.
#include "channel/packet_rings.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <latch>
#include <utility>

#include "base/threads.h"
#include "channel/given_socket.h"
#include "gate/socket_filter.h"
#include "log/log.h"
#include "process/descriptor_store.h"

namespace ravo::platform {
namespace {

constexpr long tick_ns = 1'000'000;
constexpr std::int64_t limited_for_s = 2;  // after it was last seen to be

int add_to(int epoll, int fd) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    return ::epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) == 0 ? 0 : errno;
}

}  // namespace

// ---- Opening ----

int packet_rings::open() {
    members_.clear();
    members_.emplace_back(capacity);
    return members_.front().ring.open();
}

int packet_rings::listen(bool apart) {
    if (!apart) return members_.front().ring.listen();
    if (open_apart() == 0) return 0;
    leave_apart();
    return open() != 0 || socket_take_dhcp(first_fd()) != 0 ? errno : members_.front().ring.listen();
}

// The kernel waits with each until every processor knows; so all wait together.
int packet_rings::open_members() {
    constexpr std::size_t count = fan_out::shared + own_rings;
    std::array<int, count> reasons{};
    std::latch opened(count);
    members_.reserve(count);  // they stay where they are
    for (std::size_t i = 0; i < count; ++i) {
        member &m = members_.emplace_back(apart_capacity);
        m.own = i >= fan_out::shared;
        const auto work = [&m, &opened, &reason = reasons[i]] {
            reason = m.ring.open();
            opened.count_down();
        };
        if (start_thread(work) != 0) work();
    }
    opened.wait();
    const auto failed = std::find_if(reasons.begin(), reasons.end(), [](int reason) { return reason != 0; });
    return failed == reasons.end() ? 0 : *failed;
}

// A socket must be bound before it joins, and is to receive nothing before all have.
int packet_rings::join(member &m) {
    if (socket_refuse_all(m.ring.fd()) != 0) return errno;
    if (const int reason = m.ring.listen(); reason != 0) return reason;
    return group_.join(m.ring.fd());
}

int packet_rings::open_apart() {
    members_.clear();
    if (const int reason = open_members(); reason != 0) return reason;
    for (member &m : members_)
        if (const int reason = join(m); reason != 0) return reason;
    if (const int reason = add_sink(); reason != 0) return reason;
    if (const int reason = group_.set({}); reason != 0) return reason;
    if (const int reason = watch(); reason != 0) return reason;
    for (const member &m : members_)
        if (socket_take_dhcp(m.ring.fd()) != 0) return errno;
    return 0;
}

int packet_rings::add_sink() {
    sink_.reset(::socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    if (!sink_ || socket_refuse_all(sink_.get()) != 0 ||
        ::bind(sink_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        return errno;
    return group_.join(sink_.get());
}

int packet_rings::watch() {
    wake_.reset(::epoll_create1(EPOLL_CLOEXEC));
    timer_.reset(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
    if (!wake_ || !timer_) return errno;
    for (const member &m : members_)
        if (const int reason = m.own ? 0 : add_to(wake_.get(), m.ring.fd()); reason != 0) return reason;
    return add_to(wake_.get(), timer_.get());
}

void packet_rings::leave_apart() {
    wake_.reset();
    timer_.reset();
    sink_.reset();
    group_ = {};
}

// ---- From one daemon to the next ----

namespace {

// What the sockets are called while they wait for the next daemon; those of other rings are called otherwise.
std::vector<std::string> stored_names(bool apart) {
    if (!apart) return {"packets-5120x512"};
    std::vector<std::string> names;
    for (std::size_t i = 0; i < fan_out::shared + packet_rings::own_rings; ++i)
        names.push_back("packets-2048x512-" + std::to_string(i));
    names.emplace_back("packets-refused");
    return names;
}

}  // namespace

// The numbers of the group's members are those of the rings, as long as none left it.
fault packet_rings::take_over_group(descriptor sink) {
    if (fault wrong = look_at_socket(sink.get(), AF_PACKET, SOCK_RAW)) return wrong;
    sink_ = std::move(sink);
    for (const member &m : members_)
        if (!group_.take_over(m.ring.fd())) return {"its sockets do not belong together"};
    if (!group_.take_over(sink_.get())) return {"its sockets do not belong together"};
    for (const member &m : members_)
        if (socket_take_dhcp(m.ring.fd()) != 0) return {std::strerror(errno)};
    if (socket_refuse_all(sink_.get()) != 0) return {std::strerror(errno)};
    if (const int reason = group_.set({}); reason != 0) return {std::strerror(reason)};
    if (const int reason = watch(); reason != 0) return {std::strerror(reason)};
    return {};
}

fault packet_rings::take_over_all(std::vector<descriptor> left, bool apart) {
    const std::size_t rings = apart ? left.size() - 1 : left.size();
    for (std::size_t i = 0; i < rings; ++i) {
        member &m = members_.emplace_back(apart ? apart_capacity : capacity);
        m.own = i >= fan_out::shared;
        if (fault wrong = m.ring.take_over(std::move(left[i]))) return wrong;
    }
    return apart ? take_over_group(std::move(left.back())) : fault{};
}

bool packet_rings::were_apart() {
    return store_has(stored_names(true).front());
}

bool packet_rings::take_over(bool apart) {
    const std::vector<std::string> names = stored_names(apart);
    std::vector<descriptor> left;
    for (const std::string &name : names) left.push_back(store_take(name));
    const auto is_there = [](const descriptor &fd) { return static_cast<bool>(fd); };
    if (std::none_of(left.begin(), left.end(), is_there)) return false;
    members_.clear();
    fault wrong{"some of its sockets are missing"};
    if (std::all_of(left.begin(), left.end(), is_there)) wrong = take_over_all(std::move(left), apart);
    if (!wrong) return true;
    leave_apart();
    members_.clear();
    for (const std::string &name : names) store_forget(name);
    log_line(log_level_warning, "the packet socket of the daemon before is closed: %s", wrong.text.c_str());
    return false;
}

void packet_rings::keep() {
    const std::vector<std::string> names = stored_names(static_cast<bool>(wake_));
    for (std::size_t i = 0; i < members_.size(); ++i) store_keep(names[i], members_[i].ring.fd());
    if (wake_) store_keep(names.back(), sink_.get());
}

void packet_rings::forget() {
    for (const bool apart : {false, true})
        for (const std::string &name : stored_names(apart)) store_forget(name);
}

void packet_rings::leave() {
    for (member &m : members_) m.ring.give_back();
}

std::size_t packet_rings::waiting() const {
    std::size_t count = 0;
    for (const member &m : members_) count += m.ring.waiting();
    return count;
}

// ---- Taking frames ----

void packet_rings::follow_leader(member &m, int kernel_ifindex) {
    if (m.lead == 0) m.leader = kernel_ifindex;
    m.lead = m.leader == kernel_ifindex ? m.lead + 1 : m.lead - 1;
    if (m.lead >= crowd && m.leader == kernel_ifindex) crowded_by_ = kernel_ifindex;
}

bool packet_rings::take(ring_frame *out) {
    crowded_by_ = 0;
    if (members_.size() > 1) members_[last_].ring.give_back();  // else taking does
    for (std::size_t tried = 0; tried < members_.size(); ++tried) {
        last_ = last_ + 1 == members_.size() ? 0 : last_ + 1;
        member &m = members_[last_];
        if (!m.ring.take(out)) {
            m.lead = 0;
            continue;
        }
        ++m.taken;
        if (wake_ && !m.own) follow_leader(m, out->kernel_ifindex);
        return true;
    }
    all_empty();
    return false;
}

// Frames that came since may wait until the timer is due again.
void packet_rings::all_empty() {
    std::uint64_t due = 0;
    if (ticking_) (void)!::read(timer_.get(), &due, sizeof due);
}

void packet_rings::set_timer(bool on) {
    const long interval = on ? tick_ns : 0;
    const itimerspec times{.it_interval = {.tv_sec = 0, .tv_nsec = interval},
                           .it_value = {.tv_sec = 0, .tv_nsec = interval}};
    (void)::timerfd_settime(timer_.get(), 0, &times, nullptr);  // the arguments are good
    ticking_ = on;
}

// ---- Devices and their rings ----

std::vector<fan_out_rule> packet_rings::rules() const {
    std::vector<fan_out_rule> all;
    for (std::size_t i = 0; i < members_.size(); ++i)
        if (members_[i].owner != 0) all.push_back({members_[i].owner, static_cast<unsigned>(i)});
    for (const int device : refused_) all.push_back({device, static_cast<unsigned>(members_.size())});
    return all;
}

void packet_rings::clear(bool wanted) {
    if (crowded_by_ == 0 || group_.busy()) return;
    if (!wanted) {
        if (std::find(refused_.begin(), refused_.end(), crowded_by_) != refused_.end()) return;
        if (refused_.size() == most_refused) refused_.pop_front();
        refused_.push_back(crowded_by_);
        stale_ = true;
        return apply();
    }
    const auto is_free = [](const member &m) { return m.own && m.owner == 0; };
    const auto has_it = [this](const member &m) { return m.owner == crowded_by_; };
    const auto free = std::find_if(members_.begin(), members_.end(), is_free);
    // What waits in the ring that it had comes to its end.
    if (free == members_.end() || std::any_of(members_.begin(), members_.end(), has_it)) return;
    free->owner = crowded_by_;
    free->calm = 0;
    free->limited_at_s = 0;
    if (!ticking_) set_timer(true);
    stale_ = true;
    apply();
}

bool packet_rings::note_over_limit(bool tagged, std::int64_t now_s) {
    member &m = members_[last_];
    if (m.owner == 0) return false;
    m.limited = true;
    m.limited_at_s = now_s;
    m.limited_tagged = tagged;
    return true;
}

void packet_rings::devices_changed(const std::function<bool(int kernel_ifindex)> &wanted) {
    if (std::erase_if(refused_, wanted) != 0) stale_ = true;
    apply();
}

// What the kernel does not take now it is given again with the next look.
void packet_rings::apply() {
    if (!stale_ || group_.busy()) return;
    stale_ = !group_.change(rules());
}

void packet_rings::look() {
    apply();
    if (!ticking_) return;
    bool any = false;
    for (member &m : members_) {
        any = any || m.owner != 0;
        const bool is_calm = !std::exchange(m.limited, false) && std::exchange(m.taken, 0) < calm_messages;
        m.calm = is_calm ? m.calm + 1 : 0;
        if (m.owner == 0 || m.calm < calm_looks || group_.busy()) continue;
        m.owner = 0;
        stale_ = true;
    }
    apply();
    if (!any && !group_.busy()) set_timer(false);
}

std::vector<ring_overrun> packet_rings::take_overruns(std::int64_t now_s) {
    std::vector<ring_overrun> all;
    for (const member &m : members_) {
        const std::uint32_t frames = m.ring.take_overruns();
        if (frames == 0) continue;
        const bool over_limit = m.owner != 0 && now_s - m.limited_at_s <= limited_for_s;
        all.push_back(
            {.kernel_ifindex = m.owner, .over_limit = over_limit, .tagged = m.limited_tagged, .frames = frames});
    }
    return all;
}

}  // namespace ravo::platform
