// SPDX-License-Identifier: Apache-2.0
// The kernel asks a small program of the classic kind for the number of the socket that gets a frame. Another program
// takes its place at once, but who sets it waits until no processor uses the old one any more.
#include "gate/fan_out.h"

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/if_packet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "base/threads.h"

namespace ravo::platform {
namespace {

// Spreads numbers that follow one another, whatever their distance (2^32 by the golden ratio).
constexpr std::uint32_t spread = 0x9E3779B1;
constexpr unsigned spread_shift = 32 - fan_out::shared_bits;

constexpr std::uint32_t device_number = static_cast<std::uint32_t>(SKF_AD_OFF + SKF_AD_IFINDEX);

// How the kernel describes a group.
constexpr int number_bits = 0xFFFF;
constexpr int type_shift = 16;
constexpr int type_bits = 0xFF;

using instructions = std::vector<sock_filter>;

instructions program_of(const std::vector<fan_out_rule> &rules) {
    instructions program{BPF_STMT(BPF_LD | BPF_W | BPF_ABS, device_number)};
    for (std::size_t i = 0; i < std::min(rules.size(), fan_out::most_rules); ++i) {
        program.push_back(
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<std::uint32_t>(rules[i].kernel_ifindex), 0, 1));
        program.push_back(BPF_STMT(BPF_RET | BPF_K, rules[i].member));
    }
    program.push_back(BPF_STMT(BPF_ALU | BPF_MUL | BPF_K, spread));
    program.push_back(BPF_STMT(BPF_ALU | BPF_RSH | BPF_K, spread_shift));
    program.push_back(BPF_STMT(BPF_RET | BPF_A, 0));
    return program;
}

int install(int fd, instructions program) {
    const sock_fprog whole{.len = static_cast<unsigned short>(program.size()), .filter = program.data()};
    return ::setsockopt(fd, SOL_PACKET, PACKET_FANOUT_DATA, &whole, sizeof whole) == 0 ? 0 : errno;
}

int ask_group(int fd, int *out) {
    int value = 0;
    socklen_t length = sizeof value;
    if (::getsockopt(fd, SOL_PACKET, PACKET_FANOUT, &value, &length) != 0) return errno;
    *out = value & number_bits;
    return 0;
}

}  // namespace

int fan_out::join(int fd) {
    const int type = first_ < 0 ? PACKET_FANOUT_CBPF | PACKET_FANOUT_FLAG_UNIQUEID : PACKET_FANOUT_CBPF;
    const int request = type << type_shift | group_;
    if (::setsockopt(fd, SOL_PACKET, PACKET_FANOUT, &request, sizeof request) != 0) return errno;
    if (first_ >= 0) return 0;
    first_ = fd;
    return ask_group(fd, &group_);
}

bool fan_out::take_over(int fd) {
    int value = 0;
    socklen_t length = sizeof value;
    if (::getsockopt(fd, SOL_PACKET, PACKET_FANOUT, &value, &length) != 0) return false;
    if ((value >> type_shift & type_bits) != PACKET_FANOUT_CBPF) return false;
    if (first_ >= 0) return (value & number_bits) == group_;
    first_ = fd;
    group_ = value & number_bits;
    return true;
}

int fan_out::set(const std::vector<fan_out_rule> &rules) {
    return install(first_, program_of(rules));
}

// What the kernel refuses leaves frames where they go now, which serves as well.
bool fan_out::change(const std::vector<fan_out_rule> &rules) {
    const int fd = ::fcntl(first_, F_DUPFD_CLOEXEC, 0);
    if (fd < 0) return false;
    busy_->store(true, std::memory_order_release);
    const auto work = [fd, program = program_of(rules), busy = busy_] {
        (void)install(fd, program);
        ::close(fd);
        busy->store(false, std::memory_order_release);
    };
    if (start_thread(work) != 0) work();
    return true;
}

unsigned fan_out::shared_member_of(int kernel_ifindex) {
    return static_cast<std::uint32_t>(kernel_ifindex) * spread >> spread_shift;
}

}  // namespace ravo::platform
