// SPDX-License-Identifier: Apache-2.0
// A network for the channel's tests: a namespace of each test's own, ports that are veth pairs, and far ends at which
// frames are injected and seen.
#ifndef TESTS_CHANNEL_NET_H
#define TESTS_CHANNEL_NET_H

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "channel_frames.h"
#include "log/log.h"

namespace channel_box {

using channel_frames::octets;

inline constexpr int wait_limit_ms = 30000;

inline void run(const std::string &command) {
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
}

inline int ifindex(const std::string &device) {
    return static_cast<int>(::if_nametoindex(device.c_str()));
}

// Waits until a device that has been set up passes frames. The kernel sees to that behind the command: until then what
// is sent out of it is lost, and a bridge does not use it as a port.
inline void wait_running(const std::string &device) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    ifreq request{};
    device.copy(request.ifr_name, IFNAMSIZ - 1);
    for (int waited = 0; waited < wait_limit_ms && (request.ifr_flags & IFF_RUNNING) == 0; ++waited) {
        EXPECT_EQ(::ioctl(fd, SIOCGIFFLAGS, &request), 0) << std::strerror(errno);
        if ((request.ifr_flags & IFF_RUNNING) == 0) ::poll(nullptr, 0, 1);
    }
    ::close(fd);
    EXPECT_NE(request.ifr_flags & IFF_RUNNING, 0) << device;
}

// A port: a device of the box and the far end of its cable.
inline void add_port(const std::string &device, const std::string &far, int index) {
    run("ip link add " + device + " index " + std::to_string(index) + " type veth peer name " + far);
    run("ip link set " + device + " up");
    run("ip link set " + far + " up");
    wait_running(device);
    wait_running(far);
}

// A packet socket that sends and receives whole frames at a far end, and sees what arrives there.
class far_end {
  public:
    explicit far_end(const std::string &device) : fd_(::socket(AF_PACKET, SOCK_RAW, htons(ETH_P_ALL))) {
        sockaddr_ll address{};
        address.sll_family = AF_PACKET;
        address.sll_protocol = htons(ETH_P_ALL);
        address.sll_ifindex = ifindex(device);
        EXPECT_EQ(::bind(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0) << std::strerror(errno);
        const int one = 1;
        EXPECT_EQ(::setsockopt(fd_, SOL_PACKET, PACKET_IGNORE_OUTGOING, &one, sizeof one), 0);
    }
    far_end(const far_end &) = delete;
    far_end &operator=(const far_end &) = delete;
    ~far_end() { ::close(fd_); }

    void send(const octets &frame) const {
        ASSERT_EQ(::send(fd_, frame.data(), frame.size(), 0), static_cast<ssize_t>(frame.size()))
            << std::strerror(errno);
    }
    void send(const channel_frames::frame_fields &fields) const { send(channel_frames::frame_of(fields)); }

    // The next frame of an EtherType; empty when none comes within the limit.
    octets receive(unsigned ethertype, int limit_ms = wait_limit_ms) const {
        pollfd wait{.fd = fd_, .events = POLLIN, .revents = 0};
        while (::poll(&wait, 1, limit_ms) == 1) {
            octets frame(65600);
            const ssize_t size = ::recv(fd_, frame.data(), frame.size(), MSG_DONTWAIT);
            if (size < 14) continue;
            frame.resize(static_cast<std::size_t>(size));
            if ((frame[12] << 8 | frame[13]) == static_cast<int>(ethertype)) return frame;
        }
        return {};
    }

  private:
    int fd_;
};

// Each test gets a namespace with nothing but loopback, and the log's lines.
class NetTest : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(::unshare(CLONE_NEWNET), 0) << "these tests make network namespaces and need root";
        run("ip link set lo up");
        log_listener_ = ravo::platform::log_add_listener(
            ravo::platform::log_level_warning,
            [this](const ravo::platform::log_event &event) { log_.emplace_back(event.line); });
    }
    void TearDown() override { ravo::platform::log_remove_listener(log_listener_); }

    const std::vector<std::string> &log() const { return log_; }
    // Takes the first line out of the log, "" when there is none.
    std::string take_log_line() {
        if (log_.empty()) return {};
        std::string line = std::move(log_.front());
        log_.erase(log_.begin());
        return line;
    }

  private:
    int log_listener_ = 0;
    std::vector<std::string> log_;
};

}  // namespace channel_box

#endif
