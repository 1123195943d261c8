// SPDX-License-Identifier: Apache-2.0
// Clients of the management socket that are hostile, slow or too many, and sessions that nobody uses.
#include "management/management_session.h"

#include <poll.h>

#include "log/log.h"
#include "management_client.h"

namespace {

using testing::AllOf;
using testing::Contains;
using testing::EndsWith;
using testing::HasSubstr;
using testing::SizeIs;

// ---- Hostile clients ----

// A client that is thrown out for what it sends, whatever pieces it comes in; another one is not affected.
void expect_thrown_out(const Management &test, const std::string &junk, bool greeted) {
    SCOPED_TRACE(testing::PrintToString(junk.substr(0, 32)) + " greeted " + std::to_string(greeted));
    client other(test.path);
    test.greet(other);
    client c(test.path);
    if (greeted) test.greet(c);
    std::size_t sent = 0;
    frame got{};
    EXPECT_TRUE(serve_until([&] {
        if (sent < junk.size()) sent += c.send_some(std::string_view(junk).substr(sent));
        c.read_some();
        return c.take(&got);
    }));
    EXPECT_EQ(refusal_of(got), "4 what it sent is no frame of the management protocol");
    c.expect_closed();
    test.expect_served(other);
}

TEST_F(Management, ThrowsOutWhoSendsJunk) {
    open();
    for (const bool greeted : {false, true}) {
        expect_thrown_out(*this, "GET / HTTP/1.1\r\n\r\n", greeted);
        expect_thrown_out(*this, std::string(1 << 20, 'a'), greeted);
        expect_thrown_out(*this, std::string(100, '\0'), greeted);
        expect_thrown_out(*this, std::string(100, '\xFF'), greeted);
    }
    EXPECT_THAT(platform::log_recent(),
                Contains(AllOf(HasSubstr("of user root (0) is closed: "),
                               EndsWith("what it sent is no frame of the management protocol"))));
}

TEST_F(Management, ThrowsOutWhoClaimsMoreThanAFrameMayHold) {
    open();
    const auto claim = [](frame_type type, std::uint32_t length) {
        protocol::byte_writer out;
        out.u8(static_cast<std::uint8_t>(type)).u32(length);
        return std::string(protocol::as_text(out.out));
    };
    for (const std::uint32_t length : {std::uint32_t{protocol::max_request + 1}, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
        expect_thrown_out(*this, claim(frame_type::run, length), true);
        expect_thrown_out(*this, claim(frame_type::hello, length), false);
    }
}

TEST_F(Management, TakesTheLargestFrameInPiecesOfAnySize) {
    open();
    client c(path);
    greet(c);
    const bytes largest = protocol::run_frame({1, 0, 0, 0, std::string(protocol::max_request - 7, 'y')});
    ASSERT_EQ(largest.size(), protocol::head_size + protocol::max_request);
    std::size_t sent = 0;
    EXPECT_TRUE(serve_until([&] {
        sent += c.send_some(protocol::as_text(largest).substr(sent, 997));
        return sent == largest.size();
    }));
    const std::vector<frame> got = c.answer();
    EXPECT_EQ(got[0].payload, "% Line too long: 65529 bytes, at most 32768\n");
}

TEST_F(Management, ThrowsOutAnythingBeforeAHelloAndASecondHello) {
    open();
    expect_thrown_out(*this, std::string(protocol::as_text(protocol::run_frame({1, 0, 0, 0, "show version"}))), false);
    expect_thrown_out(*this, std::string(protocol::as_text(protocol::hello_frame({1, 31, 4}))), true);
    expect_thrown_out(*this, std::string(protocol::as_text(protocol::hello_frame({1, 0, 4}))), false);
    expect_thrown_out(*this, std::string(protocol::as_text(protocol::make_frame(frame_type::output, "x"))), true);
    expect_thrown_out(*this, std::string(protocol::as_text(protocol::make_frame(frame_type::run, "abc"))), true);
}

TEST_F(Management, RefusesAVersionItDoesNotSpeak) {
    open();
    client c(path);
    c.send_frame(protocol::hello_frame({2, 31, 4}));
    EXPECT_EQ(refusal_of(c.next()), "3 this ravod speaks version 1 of the management protocol, not version 2");
    c.expect_closed();
}

TEST_F(Management, DoesNotWaitForEverForAHello) {
    open({.frame_seconds = 0.05});
    client c(path);
    EXPECT_EQ(refusal_of(c.next()), "5 its hello did not come in time");
    c.expect_closed();
}

TEST_F(Management, DoesNotWaitForEverForTheRestOfAFrameThatDripsIn) {
    open({.frame_seconds = 2});
    client c(path);
    greet(c);
    const bytes whole = protocol::run_frame({1, 0, 0, 0, std::string(30000, 'x')});
    std::size_t sent = 0;
    frame got{};
    EXPECT_TRUE(serve_until([&] {
        if (sent < 20000) sent += c.send_some(protocol::as_text(whole).substr(sent, 1));
        c.read_some();
        return c.take(&got);
    }));
    EXPECT_EQ(refusal_of(got), "5 it began a frame and did not finish it in time");
    c.expect_closed();
}

// The times are long enough for a machine with much else to do: who serves and who asks are one process here, and when
// that does not run for so long both limits are over.
TEST_F(Management, LetsAnIdleSessionBe) {
    open({.frame_seconds = 2, .stall_seconds = 2});
    client c(path);
    greet(c);
    const auto end = steady::now() + std::chrono::milliseconds(2500);
    EXPECT_TRUE(serve_until([&] { return steady::now() > end; }));
    expect_served(c);
}

TEST_F(Management, MakesACommandWaitForAClientThatDoesNotRead) {
    open();
    client other(path);
    greet(other);
    client c(path);
    greet(c);
    big_size = std::size_t{64} << 20;
    c.run("show test big");
    for (int i = 0; i < 100; ++i) expect_served(other);
    const std::vector<frame> got = c.answer();
    ASSERT_THAT(got, SizeIs(2));
    EXPECT_GE(got[0].payload.size(), big_size);
    EXPECT_EQ(status_of(got).result, 0);
}

TEST_F(Management, EndsASessionThatNobodyUses) {
    open({.idle_seconds = 2});
    client c(path);
    greet(c);
    EXPECT_EQ(refusal_of(c.next()), "6 it was not used for 0 minutes");
    c.expect_closed();
    EXPECT_THAT(platform::log_recent(), Contains(EndsWith(" is closed: it was not used for 0 minutes")));
}

TEST_F(Management, KeepsAnUnusedSessionWhenTheLimitWasRaisedOrTakenAwayMeanwhile) {
    for (const std::uint32_t minutes : {0u, 1u}) {
        open({.idle_seconds = 0.05});
        client c(path);
        greet(c);
        platform::management_limit({.idle_minutes = minutes});
        // The loop serves timers in the order of their times: when this one is over, the session's was.
        bool over = false;
        const timeval later{0, 200000};
        event_base_once(
            platform::loop_base(), -1, EV_TIMEOUT, [](int, short, void *flag) { *static_cast<bool *>(flag) = true; },
            &over, &later);
        EXPECT_TRUE(serve_until([&over] { return over; }));
        expect_served(c);
        EXPECT_EQ(management_sessions(), 1U);
    }
    platform::management_limit({});
}

TEST_F(Management, DropsAClientThatStopsReadingAfterAWhile) {
    open({.stall_seconds = 2});
    client c(path);
    greet(c);
    big_size = std::size_t{2} << 20;
    c.run("show test big");
    EXPECT_TRUE(serve_until([] { return management_sessions() == 0; }));
    EXPECT_THAT(platform::log_recent(), Contains(EndsWith("is closed: it does not read its output")));
}

TEST_F(Management, DeliversALargeOutputWholeToASlowReader) {
    open();
    client c(path);
    greet(c);
    big_size = std::size_t{7} << 20;
    c.run("show test big");
    const std::vector<frame> got = c.answer();
    ASSERT_THAT(got, SizeIs(2));
    std::string expected;
    while (expected.size() < big_size) expected += std::string(99, 'x') + "\n";
    EXPECT_TRUE(got[0].payload == expected) << got[0].payload.size() << " bytes";
    EXPECT_EQ(status_of(got).result, 0);
}

TEST_F(Management, DropsAMonitoringClientThatReadsNothingWithoutLoggingFromTheListener) {
    open({.unread_output = 4096});
    client c(path);
    greet(c);
    c.run("terminal monitor");
    EXPECT_EQ(status_of(c.answer()).result, 0);
    const std::string line(1000, 'm');
    for (int i = 0; i < 10; ++i) platform::log_line(platform::log_level_trace, "%s", line.c_str());
    EXPECT_TRUE(serve_until([] { return management_sessions() == 0; }));
}

TEST_F(Management, RefusesTheSixtyFifthSessionUntilOneEnds) {
    open();
    std::vector<std::unique_ptr<client>> clients;
    for (int i = 0; i < 64; ++i) {
        clients.push_back(std::make_unique<client>(path));
        greet(*clients.back());
    }
    {
        client extra(path);
        EXPECT_EQ(refusal_of(extra.next()), "2 all 64 sessions are in use; end one of them first");
        extra.expect_closed();
    }
    for (const auto &c : clients) expect_served(*c);
    clients.pop_back();
    EXPECT_TRUE(serve_until([] { return management_sessions() == 63; }));
    client again(path);
    greet(again);
}

TEST_F(Management, ServesAFewRequestsATurnAndAllInTheEnd) {
    open();
    client c(path);
    greet(c);
    std::string many;
    for (unsigned id = 0; id < 100; ++id)
        many += protocol::as_text(protocol::run_frame({id, 0, 0, 0, "show privilege"}));
    ASSERT_EQ(c.send_some(many), many.size());
    for (unsigned id = 0; id < 100; ++id) EXPECT_EQ(status_of(c.answer()).id, id);
}

TEST_F(Management, ClosingSendsWhatWaits) {
    open();
    client c(path);
    greet(c);
    big_size = 1000;
    c.run("show test big");
    EXPECT_TRUE(serve_until([&] {
        pollfd wait{c.fd, POLLIN, 0};
        return poll(&wait, 1, 0) > 0;
    }));
    platform::management_close();
    EXPECT_THAT(c.answer(), SizeIs(2));
}

}  // namespace
