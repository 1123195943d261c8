// SPDX-License-Identifier: Apache-2.0
// Readers on the event loop: called while readable, gone once deleted, whoever deletes them.
#include <event2/event.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "base/loop.h"
#include "log/log.h"
#include "osal.h"
#include "osal/osal_events.h"

namespace {

using ravo::platform::loop_base;
using ravo::platform::readers_count;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;

struct pipe_ends {
    int fds[2] = {-1, -1};
    pipe_ends() { EXPECT_EQ(pipe(fds), 0); }
    ~pipe_ends() {
        close(fds[0]);
        close(fds[1]);
    }
    int in() const { return fds[0]; }
    void send(const std::string &text) const {
        EXPECT_EQ(write(fds[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
};

// What a handler saw, and what it shall do.
struct peer {
    std::vector<std::string> heard;
    void **delete_handle = nullptr;  // reader to delete from the handler
};

void on_readable(int fd, void *arg) {
    auto *me = static_cast<peer *>(arg);
    char text[2];  // two bytes a call, so that one message can need several
    const ssize_t got = read(fd, text, sizeof(text));
    me->heard.emplace_back(text, static_cast<std::size_t>(got > 0 ? got : 0));
    if (me->delete_handle != nullptr) OSAL_ZEBOS_Delete_Read_Socket_Thread(me->delete_handle);
}

// Serves what is ready now. Nothing that is ready needs waiting for: the loop looks at descriptors first.
void serve(int rounds) {
    for (int i = 0; i < rounds; ++i) event_base_loop(loop_base(), EVLOOP_ONCE | EVLOOP_NONBLOCK);
}

struct Reader : testing::Test {
    ~Reader() override {
        ravo::platform::readers_free();
        ravo::platform::loop_free();
    }
};

TEST_F(Reader, IsCalledAsLongAsThereIsSomethingToRead) {
    const pipe_ends line;
    peer me;
    void *handle = nullptr;
    void *returned = OSAL_ZEBOS_Add_Read_Socket_Thread(&handle, "line", on_readable, line.in(), 1, &me);
    ASSERT_NE(returned, nullptr);
    EXPECT_EQ(returned, handle);
    serve(1);
    EXPECT_THAT(me.heard, IsEmpty());
    line.send("abcde");
    serve(5);
    EXPECT_THAT(me.heard, ElementsAre("ab", "cd", "e"));
}

TEST_F(Reader, WithoutRepeatIsCalledOnce) {
    const pipe_ends line;
    peer me;
    void *handle = nullptr;
    ASSERT_NE(OSAL_ZEBOS_Add_Read_Socket_Thread(&handle, "line", on_readable, line.in(), 0, &me), nullptr);
    line.send("abcd");
    serve(3);
    EXPECT_THAT(me.heard, ElementsAre("ab"));
    OSAL_ZEBOS_Delete_Read_Socket_Thread(&handle);
    EXPECT_EQ(handle, nullptr);
}

TEST_F(Reader, DeletedInItsOwnHandlerIsNotCalledAgain) {
    const pipe_ends line;
    void *handle = nullptr;
    peer me{{}, &handle};
    ASSERT_NE(OSAL_ZEBOS_Add_Read_Socket_Thread(&handle, "line", on_readable, line.in(), 1, &me), nullptr);
    line.send("abcd");
    serve(3);
    EXPECT_THAT(me.heard, ElementsAre("ab"));
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(readers_count(), 0U);
}

TEST_F(Reader, DeletedByAnotherReadersHandlerIsNotCalledEvenWhenReady) {
    const pipe_ends first;
    const pipe_ends second;
    void *first_handle = nullptr;
    void *second_handle = nullptr;
    // Each deletes the other: whichever is served first is the only one.
    peer a{{}, &second_handle};
    peer b{{}, &first_handle};
    ASSERT_NE(OSAL_ZEBOS_Add_Read_Socket_Thread(&first_handle, "a", on_readable, first.in(), 1, &a), nullptr);
    ASSERT_NE(OSAL_ZEBOS_Add_Read_Socket_Thread(&second_handle, "b", on_readable, second.in(), 1, &b), nullptr);
    first.send("xx");
    second.send("yy");
    serve(3);
    EXPECT_EQ(a.heard.size() + b.heard.size(), 1U);
    EXPECT_EQ(readers_count(), 1U);
}

TEST_F(Reader, SeveralAreServedEachWithItsOwnArgument) {
    const pipe_ends lines[3];
    peer peers[3];
    void *handles[3];
    for (int i = 0; i < 3; ++i)
        ASSERT_NE(OSAL_ZEBOS_Add_Read_Socket_Thread(&handles[i], "line", on_readable, lines[i].in(), 1, &peers[i]),
                  nullptr);
    lines[0].send("0");
    lines[2].send("2");
    serve(2);
    EXPECT_THAT(peers[0].heard, ElementsAre("0"));
    EXPECT_THAT(peers[1].heard, IsEmpty());
    EXPECT_THAT(peers[2].heard, ElementsAre("2"));
}

TEST_F(Reader, DeletingTwiceOrNothingDoesNoHarm) {
    const pipe_ends line;
    peer me;
    void *handle = nullptr;
    OSAL_ZEBOS_Delete_Read_Socket_Thread(&handle);
    ASSERT_NE(OSAL_ZEBOS_Add_Read_Socket_Thread(&handle, "line", on_readable, line.in(), 1, &me), nullptr);
    void *copy = handle;
    OSAL_ZEBOS_Delete_Read_Socket_Thread(&handle);
    OSAL_ZEBOS_Delete_Read_Socket_Thread(&copy);
    EXPECT_EQ(copy, nullptr);
    EXPECT_EQ(readers_count(), 0U);
}

TEST_F(Reader, OfNoDescriptorIsRefused) {
    void *handle = &handle;
    EXPECT_EQ(OSAL_ZEBOS_Add_Read_Socket_Thread(&handle, "none", on_readable, -1, 1, nullptr), nullptr);
    EXPECT_EQ(handle, nullptr);
}

TEST_F(Reader, OfSomethingThatCannotBeWatchedIsRefused) {
    const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    ravo::platform::log_take_event_library();
    void *handle = nullptr;
    EXPECT_EQ(OSAL_ZEBOS_Add_Read_Socket_Thread(&handle, "null", on_readable, fd, 1, nullptr), nullptr);
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(readers_count(), 0U);
    EXPECT_THAT(ravo::platform::log_recent(),
                ElementsAre(HasSubstr("Epoll ADD"),
                            EndsWith(" reader \"null\": descriptor " + std::to_string(fd) + " cannot be watched")));
    close(fd);
    ravo::platform::log_close();
}

}  // namespace
