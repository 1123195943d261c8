// What the channel's tests share: two ports behind an open channel, and words to say what is to come out of it.
//
// That nothing is delivered is proven by a good frame sent behind: a tap keeps the order, so when that one arrives,
// what was sent before it is not going to.
#ifndef TESTS_CHANNEL_FIXTURE_H
#define TESTS_CHANNEL_FIXTURE_H

#include <algorithm>
#include <cstring>
#include <string>

#include "channel/channel.h"
#include "channel_box.h"
#include "channel_frames.h"

namespace channel_box {

using channel_frames::delivery_of;
using channel_frames::frame_fields;
using channel_frames::hex;
using channel_frames::message_of;
using ravo::platform::channel_close;
using ravo::platform::channel_counters;
using ravo::platform::channel_open;
using ravo::platform::channel_receive;
using ravo::platform::channel_statistics;

struct delivery {
    octets message;
    octets source;  // the source-address record
    ssize_t result = -1;
};

inline bool readable(int fd, int limit_ms) {
    pollfd wait{.fd = fd, .events = POLLIN, .revents = 0};
    return ::poll(&wait, 1, limit_ms) == 1;
}

inline delivery receive_now(std::size_t size = 2048, int flags = 0, socklen_t source_size = 64) {
    delivery got{.message = octets(size), .source = octets(64, 0xAA)};
    sockaddr_storage from;
    std::memset(&from, 0xAA, sizeof from);
    socklen_t length = source_size;
    got.result = channel_receive(got.message.data(), size, flags, reinterpret_cast<sockaddr *>(&from), &length);
    if (got.result < 0) return {.message = {}, .source = {}, .result = got.result};
    got.message.resize(std::min(size, static_cast<std::size_t>(got.result)));
    std::memcpy(got.source.data(), &from, got.source.size());
    for (std::size_t i = length; i < got.source.size(); ++i)
        EXPECT_EQ(got.source[i], 0xAA) << "written behind its length";
    got.source.resize(length);
    return got;
}

// The counters' differences since the last look.
class counted {
  public:
    counted() : before_(channel_statistics()) {}
    channel_counters since() {
        const channel_counters now = channel_statistics();
        channel_counters difference{.delivered = now.delivered - before_.delivered,
                                    .truncated = now.truncated - before_.truncated,
                                    .fragment = now.fragment - before_.fragment,
                                    .bad_ip_checksum = now.bad_ip_checksum - before_.bad_ip_checksum,
                                    .bad_udp_checksum = now.bad_udp_checksum - before_.bad_udp_checksum,
                                    .unknown_vlan = now.unknown_vlan - before_.unknown_vlan,
                                    .unknown_port = now.unknown_port - before_.unknown_port,
                                    .overrun = now.overrun - before_.overrun};
        before_ = now;
        return difference;
    }

  private:
    channel_counters before_;
};

inline std::string text_of(const channel_counters &c) {
    return "delivered " + std::to_string(c.delivered) + " truncated " + std::to_string(c.truncated) + " fragment " +
           std::to_string(c.fragment) + " ip " + std::to_string(c.bad_ip_checksum) + " udp " +
           std::to_string(c.bad_udp_checksum) + " vlan " + std::to_string(c.unknown_vlan) + " port " +
           std::to_string(c.unknown_port) + " overrun " + std::to_string(c.overrun);
}

// Two ports: swp1 is port 1/1 on VLAN 10, swp2 is port 1/2 on VLAN 20. The channel is open.
class Channel : public BoxTest {
  protected:
    void SetUp() override {
        BoxTest::SetUp();
        add_port("swp1", "c1", 5121);
        add_port("swp2", "c2", 5122);
        tap("swp1", 10, 5121);
        tap("swp2", 20, 5122);
        fd_ = channel_open();
        ASSERT_GE(fd_, 0) << std::strerror(errno);
        statistics_ = counted();
    }
    void TearDown() override {
        EXPECT_EQ(channel_close(), 0);
        BoxTest::TearDown();
    }

    int fd() const { return fd_; }
    std::string counted_since() { return text_of(statistics_.since()); }

    // Waits for the next message.
    delivery receive(std::size_t size = 2048, int flags = 0, socklen_t source_size = 64) const {
        while (readable(fd_, wait_limit_ms)) {
            const delivery got = receive_now(size, flags, source_size);
            if (got.result >= 0) return got;
            EXPECT_EQ(errno, EAGAIN);
        }
        ADD_FAILURE() << "no message arrived";
        return {};
    }

    // Expects that the frame is delivered, whole and as the only one.
    void expect_delivered(const far_end &from, const frame_fields &fields) const {
        from.send(fields);
        EXPECT_EQ(hex(receive().message), hex(delivery_of(fields)));
        expect_nothing_more();
    }

    // Expects that nothing sent so far at this far end is delivered, by a good frame behind it.
    void expect_silence(const far_end &from) const {
        const frame_fields sentinel{.identification = 0x7777, .message = message_of(44, 77)};
        from.send(sentinel);
        EXPECT_EQ(hex(receive().message), hex(delivery_of(sentinel)));
        expect_nothing_more();
    }

    void expect_nothing_more() const {
        EXPECT_EQ(receive_now().result, -1);
        EXPECT_EQ(errno, EAGAIN);
        EXPECT_FALSE(readable(fd_, 0));
    }

  private:
    int fd_ = -1;
    counted statistics_;
};

}  // namespace channel_box

#endif
