// SPDX-License-Identifier: Apache-2.0
// What the channel's tests share: two ports behind an open channel, and words to say what is to come out of it.
//
// That nothing is delivered is proven by a good frame sent behind: a tap keeps the order, so when that one arrives,
// what was sent before it is not going to.
#ifndef TESTS_CHANNEL_FIXTURE_H
#define TESTS_CHANNEL_FIXTURE_H

#include <algorithm>
#include <cstring>
#include <string>

#include "books/books.h"
#include "capabilities.h"
#include "channel/channel.h"
#include "channel_box.h"
#include "channel_frames.h"

namespace channel_box {

using channel_frames::delivery_of;
using channel_frames::frame_fields;
using channel_frames::hex;
using channel_frames::message_of;
using ravo::platform::channel_close;
using ravo::platform::channel_lost;
using ravo::platform::channel_open;
using ravo::platform::channel_receive;

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

// Expects that no message waits. The descriptor may be readable all the same, by a queue's own timer: reading is what
// answers it, with nothing.
inline void expect_no_message(int fd) {
    for (int look = 0; look < 100; ++look) {
        ASSERT_EQ(receive_now().result, -1);
        ASSERT_EQ(errno, EAGAIN);
        if (!readable(fd, 0)) return;
    }
    ADD_FAILURE() << "readable for ever, and there is no message";
}

// What the books counted since the last look. The relay is not here to decide on what is delivered: that stays without
// an outcome.
class counted {
  public:
    counted() { (void)since(); }
    std::string since() {
        ravo::platform::books_close();
        ravo::platform::books_look();
        const ravo::platform::book_counters now = ravo::platform::books_total();
        const auto grown = [&](relay_outcome o) { return std::to_string(now.by_outcome[o] - before_.by_outcome[o]); };
        const std::string text = "delivered " + grown(OUTCOME_NONE) + " truncated " + grown(OUTCOME_TRUNCATED) +
                                 " fragment " + grown(OUTCOME_FRAGMENT) + " ip " + grown(OUTCOME_BAD_IP_CHECKSUM) +
                                 " udp " + grown(OUTCOME_BAD_UDP_CHECKSUM) + " vlan " + grown(OUTCOME_UNKNOWN_VLAN) +
                                 " port " + grown(OUTCOME_UNKNOWN_PORT) + " limit " + grown(OUTCOME_PORT_LIMIT) +
                                 " lost " + std::to_string(channel_lost() - lost_before_);
        before_ = now;
        lost_before_ = channel_lost();
        return text;
    }

  private:
    ravo::platform::book_counters before_;
    std::uint64_t lost_before_ = 0;
};

// Where the relay's limits are kept: by a program in the kernel, or by the relay itself where the kernel refuses that.
enum class way_in { kernel, daemon };

inline std::string name_of(const testing::TestParamInfo<way_in> &way) {
    return way.param == way_in::kernel ? "Kernel" : "Daemon";
}

// Two ports: swp1 is port 1/1 on VLAN 10, swp2 is port 1/2 on VLAN 20. The channel is open.
class Channel : public BoxTest, public testing::WithParamInterface<way_in> {
  protected:
    void SetUp() override {
        BoxTest::SetUp();
        add_port("swp1", "c1", 5121);
        add_port("swp2", "c2", 5122);
        tap("swp1", 10, 5121);
        tap("swp2", 20, 5122);
        ravo::platform::switch_description unlimited;
        unlimited.limit = {.port = 0, .burst = 1, .uplink = 0};
        ravo::platform::channel_describe(unlimited);
        fd_ = open();
        ASSERT_GE(fd_, 0) << std::strerror(errno);
        statistics_ = counted();
    }
    // Opens the channel with its limits where the test wants them.
    int open() {
        if (GetParam() == way_in::kernel) return channel_open();
        const without_programs refused;
        const int fd = channel_open();
        EXPECT_EQ(take_log_line(),
                  "the kernel refuses the program that limits what ports may send: Operation not "
                  "permitted; the relay holds them to the limits itself");
        return fd;
    }
    void TearDown() override {
        EXPECT_EQ(channel_close(), 0);
        BoxTest::TearDown();
    }

    int fd() const { return fd_; }
    std::string counted_since() { return statistics_.since(); }

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

    void expect_nothing_more() const { expect_no_message(fd_); }

  private:
    int fd_ = -1;
    counted statistics_;
};

}  // namespace channel_box

#endif
