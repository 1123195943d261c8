// SPDX-License-Identifier: Apache-2.0
// The program's counts stand in memory that it shares with the daemon, mapped page by page as devices come, so that
// taking a message out of the queue costs two stores and no system call. Outside the kernel the same records are the
// daemon's own, and the same rule is applied to them (admit).

#include "gate/gate.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <fcntl.h>
#include <gate.skel.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "gate/socket_filter.h"

namespace ravo::platform {
namespace {

constexpr std::uint64_t second = 1'000'000'000;  // in nanoseconds

struct object_close {
    void operator()(bpf_object *o) const { bpf_object__close(o); }
};
using object_ptr = std::unique_ptr<bpf_object, object_close>;

int say_nothing(enum libbpf_print_level /*level*/, const char * /*format*/, va_list /*arguments*/) {
    return 0;
}

std::size_t page_size() {
    static const auto size = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    return size;
}

std::size_t records_per_page() {
    static const std::size_t count = page_size() / sizeof(gate_port);
    return count;
}

// One side writes while the other reads.
void store(__u64 &word, std::uint64_t value) {
    __atomic_store_n(&word, value, __ATOMIC_RELAXED);
}
std::uint64_t load_word(const __u64 &word) {
    return __atomic_load_n(&word, __ATOMIC_RELAXED);
}

// The program and its maps, in the kernel. NULL and errno when it refuses them.
object_ptr load_object() {
    std::size_t size = 0;
    const void *elf = gate_program::elf_bytes(&size);
    ::libbpf_set_print(say_nothing);
    object_ptr object(bpf_object__open_mem(elf, size, nullptr));
    if (object != nullptr && bpf_object__load(object.get()) != 0) object.reset();
    return object;
}

int map_fd(const bpf_object *object, const char *name) {
    return bpf_object__find_map_fd_by_name(object, name);
}

descriptor keep_map(const bpf_object *object, const char *name) {
    return descriptor(::fcntl(map_fd(object, name), F_DUPFD_CLOEXEC, 0));
}

}  // namespace

// ---- Setting up ----

// The socket keeps the program, and the program its maps; what is held here are the maps.
bool gate::load(int fd) {
    const object_ptr object = load_object();
    if (object == nullptr) return false;
    const int program = bpf_program__fd(bpf_object__find_program_by_name(object.get(), "gate"));
    if (::setsockopt(fd, SOL_SOCKET, SO_ATTACH_BPF, &program, sizeof program) != 0) return false;
    descriptor devices = keep_map(object.get(), "devices");
    ports_ = keep_map(object.get(), "ports");
    limited_by_tag_ = keep_map(object.get(), "limited_by_tag");
    queue_ = mapping(map_fd(object.get(), "queue"), page_size());
    if (!devices || !ports_ || !limited_by_tag_ || !queue_) return false;
    devices_ = std::move(devices);
    return true;
}

int gate::attach(int fd) {
    if (load(fd)) return 0;
    refusal_ = std::strerror(errno);
    ports_.reset();
    limited_by_tag_.reset();
    queue_ = mapping(-1, page_size());
    if (!queue_ || socket_take_dhcp(fd) != 0) return errno;
    return 0;
}

// ---- Devices and their places ----

gate_port *gate::record(std::size_t place) const {
    return static_cast<gate_port *>(pages_[place / records_per_page()].get()) + place % records_per_page();
}

bool gate::map_place(std::size_t place) {
    while (place >= pages_.size() * records_per_page()) {
        mapping page(in_kernel() ? ports_.get() : -1, page_size(), in_kernel() ? pages_.size() * page_size() : 0);
        if (!page) return false;
        pages_.push_back(std::move(page));
    }
    return true;
}

std::size_t gate::give_place() {
    const auto free = std::find(used_.begin(), used_.end(), false);
    const auto place = static_cast<std::size_t>(free - used_.begin());
    if (place == GATE_PORTS) errno = ENOSPC;
    if (place == GATE_PORTS || !map_place(place)) return no_place;
    *record(place) = {};
    if (free == used_.end())
        used_.push_back(true);
    else
        *free = true;
    return place;
}

int gate::let_in(int kernel_ifindex, std::size_t place) {
    if (!in_kernel()) return 0;
    const auto device = static_cast<std::uint32_t>(kernel_ifindex);
    const auto value = static_cast<std::uint32_t>(place);
    return bpf_map_update_elem(devices_.get(), &device, &value, BPF_ANY) == 0 ? 0 : errno;
}

void gate::shut_out(int kernel_ifindex) {
    const auto device = static_cast<std::uint32_t>(kernel_ifindex);
    if (in_kernel()) (void)bpf_map_delete_elem(devices_.get(), &device);  // it may not have been let in
}

void gate::free_place(std::size_t place) {
    forget_tags(place);
    used_[place] = false;
}

void gate::set_rate(std::size_t place, const port_rate &rate) {
    gate_port &port = *record(place);
    const std::uint64_t interval = rate.messages == 0 ? 0 : second / rate.messages;
    store(port.burst, interval * (std::max(rate.burst, 1U) - 1));
    store(port.interval, interval);
}

// ---- The queue ----

void gate::set_room(std::size_t messages) {
    store(queue()->room, messages);
}

void gate::take(std::size_t place) {
    gate_port &port = *record(place);
    store(port.taken, port.taken + 1);
    store(queue()->taken, queue()->taken + 1);
}

void gate::note_empty() {
    for (std::size_t place = 0; place < used_.size(); ++place)
        if (used_[place]) store(record(place)->taken, load_word(record(place)->passed));
    store(queue()->taken, load_word(queue()->passed));
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

void gate::each_limited_tag(const tag_visitor &visit) const {
    for (const auto &[tag, count] : own_limited_tags_) visit({.port = tag.first, .vlan = tag.second}, count);
    if (!in_kernel()) return;
    gate_tag tag;
    for (const gate_tag *before = nullptr; bpf_map_get_next_key(limited_by_tag_.get(), before, &tag) == 0;
         before = &tag) {
        std::uint64_t count = 0;
        if (bpf_map_lookup_elem(limited_by_tag_.get(), &tag, &count) == 0) visit(tag, count);
    }
}

void gate::forget_tags(std::size_t place) {
    std::vector<gate_tag> of_place;
    each_limited_tag([&](const gate_tag &tag, std::uint64_t) {
        if (tag.port == place) of_place.push_back(tag);
    });
    for (const gate_tag &tag : of_place) {
        own_limited_tags_.erase({tag.port, tag.vlan});
        if (in_kernel()) (void)bpf_map_delete_elem(limited_by_tag_.get(), &tag);  // it was there
    }
}

}  // namespace ravo::platform
