// SPDX-License-Identifier: Apache-2.0
// The program and its maps are loaded by whoever has the right: the daemon itself, or a lender that an init system
// starts for it. The lender loads, sends the descriptors with one message and ends. Both ends compare a number of the
// program's bytes, as they may be of different versions.
#include "gate/gate_objects.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <fcntl.h>
#include <gate.skel.h>
#include <linux/capability.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "base/descriptor_message.h"

namespace ravo::platform {
namespace {

constexpr timeval patience{.tv_sec = 3, .tv_usec = 0};  // an init system may have to start the lender first
constexpr std::size_t object_count = 5;

// What goes with the descriptors. Both ends are on one machine.
struct answer {
    std::uint64_t program;  // which one it is: both ends may be of different versions
    std::int32_t reason;    // errno; 0: the descriptors are there
    std::int32_t spare;
};

struct object_close {
    void operator()(bpf_object *o) const { bpf_object__close(o); }
};
using object_ptr = std::unique_ptr<bpf_object, object_close>;

int say_nothing(enum libbpf_print_level /*level*/, const char * /*format*/, va_list /*arguments*/) {
    return 0;
}

descriptor keep(int fd) {
    return descriptor(::fcntl(fd, F_DUPFD_CLOEXEC, 0));
}

descriptor keep_map(const bpf_object *object, const char *name) {
    return keep(bpf_object__find_map_fd_by_name(object, name));
}

bool is_whole(const gate_objects &o) {
    return o.program && o.devices && o.ports && o.limited_by_tag && o.queue;
}

// ---- Lending ----

std::array<int, object_count> descriptors_of(const gate_objects &objects) {
    return {objects.program.get(), objects.devices.get(), objects.ports.get(), objects.limited_by_tag.get(),
            objects.queue.get()};
}

// ---- Borrowing ----

std::string says(const char *what) {
    return std::string(what) + ": " + std::strerror(errno);
}

bool is_root(int fd) {
    ucred peer{};
    socklen_t size = sizeof peer;
    return ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.uid == 0;
}

// Returns none, and errno, when nobody listens there.
descriptor reach(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        errno = path.empty() ? ENOENT : ENAMETOOLONG;
        return {};
    }
    path.copy(address.sun_path, path.size());
    descriptor fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!fd || ::connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) return {};
    if (::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience) != 0) return {};
    return fd;
}

gate_objects objects_of(msghdr &message) {
    std::vector<descriptor> taken = take_descriptors(message);
    if (taken.size() != object_count || (message.msg_flags & MSG_CTRUNC) != 0) return {};
    return {std::move(taken[0]), std::move(taken[1]), std::move(taken[2]), std::move(taken[3]), std::move(taken[4])};
}

fault receive(int fd, gate_objects *lent) {
    answer said{};
    iovec bytes{.iov_base = &said, .iov_len = sizeof said};
    descriptor_room<object_count> room;
    msghdr message{};
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    use_room(message, room);
    ssize_t size = -1;
    do size = ::recvmsg(fd, &message, MSG_CMSG_CLOEXEC);
    while (size < 0 && errno == EINTR);  // so ends the wait of a process that was stopped and continued
    if (size <= 0) return {size < 0 && errno == EAGAIN ? "its lender does not answer" : "its lender is gone"};
    gate_objects objects = objects_of(message);
    if (size != sizeof said || said.program != gate_program_number()) return {"its lender is of another version"};
    if (said.reason != 0) return {std::strerror(said.reason)};
    if (!objects) return {"its lender sent no descriptors"};
    *lent = std::move(objects);
    return {};
}

}  // namespace

std::uint64_t gate_program_number() {  // FNV-1a of its bytes
    std::size_t size = 0;
    const auto *elf = static_cast<const unsigned char *>(gate_program::elf_bytes(&size));
    std::uint64_t number = 0xCBF29CE484222325;
    for (std::size_t i = 0; i < size; ++i) number = (number ^ elf[i]) * 0x100000001B3;
    return number;
}

bool gate_may_load() {
    __user_cap_header_struct who{.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
    std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> sets{};
    if (::syscall(SYS_capget, &who, sets.data()) != 0) return true;
    const auto has = [&](unsigned capability) {
        return (sets[CAP_TO_INDEX(capability)].effective & CAP_TO_MASK(capability)) != 0;
    };
    return has(CAP_BPF) || has(CAP_SYS_ADMIN);
}

// Without the right it is not tried: the library would ask for more on the way, and be refused that too.
gate_objects gate_load() {
    if (!gate_may_load()) {
        errno = EPERM;
        return {};
    }
    std::size_t size = 0;
    const void *elf = gate_program::elf_bytes(&size);
    ::libbpf_set_print(say_nothing);
    const object_ptr object(bpf_object__open_mem(elf, size, nullptr));
    if (object == nullptr || bpf_object__load(object.get()) != 0) return {};
    gate_objects loaded{.program = keep(bpf_program__fd(bpf_object__find_program_by_name(object.get(), "gate"))),
                        .devices = keep_map(object.get(), "devices"),
                        .ports = keep_map(object.get(), "ports"),
                        .limited_by_tag = keep_map(object.get(), "limited_by_tag"),
                        .queue = keep_map(object.get(), "queue")};
    if (!is_whole(loaded)) return {};
    return loaded;
}

fault gate_lend(int fd) {
    const gate_objects objects = gate_load();
    answer said{.program = gate_program_number(), .reason = objects ? 0 : errno, .spare = 0};
    iovec bytes{.iov_base = &said, .iov_len = sizeof said};
    descriptor_room<object_count> room;
    msghdr message{};
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    if (objects) {
        use_room(message, room);
        put_descriptors(message, descriptors_of(objects));
    }
    if (::sendmsg(fd, &message, MSG_NOSIGNAL) == sizeof said) return {};
    if (errno == ENOTSOCK)
        return {"nobody asks for the gate's program at this input; ravo-gate.socket starts this for who does"};
    return {says("cannot lend the gate's program")};
}

fault gate_ask(const std::string &path, descriptor *lender) {
    *lender = reach(path);
    if (!*lender) return errno == ENOENT ? fault{} : fault{says(path.c_str())};
    if (is_root(lender->get())) return {};
    lender->reset();
    return {path + " is not root's"};
}

fault gate_take(const descriptor &lender, gate_objects *lent) {
    *lent = {};
    if (!lender) return {};
    return receive(lender.get(), lent);
}

}  // namespace ravo::platform
