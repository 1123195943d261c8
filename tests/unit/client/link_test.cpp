// SPDX-License-Identifier: Apache-2.0
// The link against a scripted daemon, driven as an event loop would.
#include "link.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "management_protocol.h"

namespace {

namespace client = ravo::client;
namespace protocol = ravo::protocol;
using protocol::bytes;
using protocol::frame_type;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::EndsWith;

struct Link : testing::Test {
    std::string folder;
    std::string path;
    int listener = -1;
    int peer = -1;
    std::vector<std::string> answers;  // "LINE=RESULT:TEXT" or "LINE!REASON"
    client::link_ptr link;

    Link() {
        char name[] = "/tmp/ravo-link-XXXXXX";
        folder = mkdtemp(name);
        path = folder + "/sock";
        client::link_options options;
        options.socket = path;
        options.patience = milliseconds(200);
        options.pause = milliseconds(30);
        options.longest_text = 8;
        options.most_waiting = 3;
        link = client::link_make(options);
    }
    ~Link() override {
        stop();
        rmdir(folder.c_str());
    }
    void serve() {
        listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, path.c_str());
        ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
        ASSERT_EQ(listen(listener, 1), 0);
    }
    void accept_one() { peer = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC); }
    void drop() {
        if (peer >= 0) close(peer);
        peer = -1;
    }
    void stop() {
        drop();
        if (listener >= 0) close(listener);
        listener = -1;
        unlink(path.c_str());
    }
    void ask(const std::string &line) {
        client::link_ask(*link, line, [this, line](client::reply &r) {
            answers.push_back(r.answered
                                  ? line + "=" + std::to_string(r.result) + ":" + r.text + (r.cut ? "..." + r.tail : "")
                                  : line + "!" + r.reason);
        });
    }
    void put(const bytes &data) const {
        ASSERT_EQ(send(peer, data.data(), data.size(), MSG_NOSIGNAL), (ssize_t)data.size());
    }
    void welcome() const { put(protocol::welcome_frame({1, 31, 1, 4, "#", "9.9"})); }
    void text(const std::string &t) const { put(protocol::make_frame(frame_type::output, t)); }
    void status(std::uint32_t id, int result) const { put(protocol::status_frame({id, result, 0, 4, -1, "#", ""})); }
    bytes taken(std::size_t size) const {
        bytes got(size);
        got.resize(static_cast<std::size_t>(std::max<ssize_t>(0, recv(peer, got.data(), size, MSG_WAITALL))));
        return got;
    }
    // Goes on until so many answers are there, or a second has passed.
    void until(std::size_t count) {
        for (int i = 0; i < 200 && answers.size() < count; ++i) {
            pollfd wait{client::link_descriptor(*link), client::link_wants(*link), 0};
            poll(&wait, wait.fd < 0 ? 0 : 1, 5);
            client::link_attend(*link);
        }
        EXPECT_EQ(answers.size(), count);
    }
};

TEST_F(Link, AsksOneAfterTheOtherOverOneConnection) {
    serve();
    ask("one");
    ask("two");
    accept_one();
    const bytes hello = protocol::hello_frame({1, 31, 4});
    EXPECT_EQ(taken(hello.size()), hello);
    welcome();
    client::link_attend(*link);
    const bytes first = protocol::run_frame({1, 0, 0, 0, "one"});
    EXPECT_EQ(taken(first.size()), first);
    text("yes");
    status(1, 0);
    until(1);
    const bytes second = protocol::run_frame({2, 0, 0, 0, "two"});
    EXPECT_EQ(taken(second.size()), second);
    status(2, 5);
    until(2);
    EXPECT_THAT(answers, ElementsAre("one=0:yes", "two=5:"));
    EXPECT_TRUE(client::link_look(*link).connected);
    EXPECT_EQ(client::link_look(*link).daemon_version, "9.9");
    EXPECT_EQ(client::link_look(*link).daemon_pid, getpid());
}

TEST_F(Link, KeepsABoundedAmountOfAnAnswer) {
    serve();
    ask("one");
    accept_one();
    welcome();
    text("12345");
    text("67890");
    text("more");
    status(1, 0);
    until(1);
    EXPECT_THAT(answers, ElementsAre("one=0:12345678...90more"));
}

TEST_F(Link, ADaemonThatIsNotThereIsTriedAgainAfterAPause) {
    ask("one");
    EXPECT_THAT(answers, ElementsAre(EndsWith("no ravod is running there: there is no such socket")));
    serve();
    ask("two");
    EXPECT_THAT(answers.back(), EndsWith("there is no such socket")) << "within the pause nothing is tried";
    usleep(40000);
    ask("three");
    accept_one();
    welcome();
    status(1, 0);
    until(3);
    EXPECT_EQ(answers.back(), "three=0:");
}

TEST_F(Link, ADaemonThatDoesNotAnswerIsGivenUp) {
    serve();
    ask("one");
    ask("two");
    accept_one();
    welcome();
    until(2);
    EXPECT_THAT(answers, ElementsAre(EndsWith("ravod does not answer"), EndsWith("ravod does not answer")));
    EXPECT_FALSE(client::link_look(*link).connected);
    EXPECT_EQ(client::link_descriptor(*link), -1);
}

TEST_F(Link, ALossAndARefusalFailAllThatWait) {
    serve();
    ask("one");
    ask("two");
    accept_one();
    welcome();
    drop();
    until(2);
    EXPECT_THAT(answers.back(), EndsWith("ravod has closed the connection"));
    usleep(40000);
    ask("three");
    accept_one();
    put(protocol::refused_frame({protocol::refusal::too_many, "all sessions are in use"}));
    until(3);
    EXPECT_THAT(answers.back(), EndsWith("all sessions are in use"));
}

TEST_F(Link, WhatIsNoFrameEndsTheConnection) {
    for (const bytes &junk : {bytes{255, 0, 0, 0, 0}, bytes{131, 255, 255, 255, 255}, bytes{129, 0, 0, 0, 1, 7}}) {
        answers.clear();
        serve();
        ask("one");
        accept_one();
        put(junk);
        until(1);
        EXPECT_THAT(answers.back(), EndsWith("no frame of the management protocol"));
        stop();
        usleep(40000);
    }
}

TEST_F(Link, ABoundedNumberMayWait) {
    serve();
    for (const char *line : {"a", "b", "c", "d"}) ask(line);
    EXPECT_THAT(answers, ElementsAre(EndsWith("too many requests wait for ravod")));
}

TEST_F(Link, SettleWaitsForTheAnswer) {
    serve();
    ask("one");
    accept_one();
    welcome();
    put(protocol::make_frame(frame_type::row_key, std::string_view("k")));
    put(protocol::make_frame(frame_type::record, std::string_view("r")));
    status(1, 0);
    client::link_settle(*link, milliseconds(5000));
    EXPECT_THAT(answers, ElementsAre("one=0:"));
    ask("two");
    client::link_settle(*link, milliseconds(30));
    EXPECT_THAT(answers.back(), EndsWith("ravod does not answer"));
}

}  // namespace
