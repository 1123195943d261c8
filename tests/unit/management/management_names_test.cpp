// SPDX-License-Identifier: Apache-2.0
// Who a user is, asked of a system that answers, does not know, or hangs.
#include "management/management_names.h"

#include <event2/event.h>

#include <future>
#include <memory>
#include <vector>

#include "management_client.h"

namespace {

using platform::known_names;
using testing::ElementsAre;

std::string text_of(const known_names &names) {
    const auto number = [](const std::optional<gid_t> &gid) { return gid ? std::to_string(*gid) : std::string("-"); };
    return names.user + " " + number(names.groups.viewers) + " " + number(names.groups.admins) +
           (names.groups_known ? "" : " unknown");
}

// A system that knows user 7 and one group, and whose answers can be kept back.
struct slow_system {
    std::promise<void> go_on;
    std::shared_future<void> may_go_on = go_on.get_future().share();

    [[nodiscard]] platform::name_service service(bool hangs) const {
        return {[](uid_t uid) { return uid == 7 ? std::string("seven") : std::string(); },
                [hangs, wait = may_go_on](const std::string &name) -> std::optional<gid_t> {
                    if (hangs) wait.wait();
                    if (name == "lookers") return 70;
                    return std::nullopt;
                }};
    }
};

struct Names : testing::Test {
    slow_system system;
    std::vector<std::string> heard;

    ~Names() override {
        platform::names_close();
        system.go_on.set_value();
        platform::loop_free();
    }
    void open(bool hangs) const {
        ASSERT_EQ(platform::names_open("lookers", "changers", system.service(hangs)).text, "");
    }
    [[nodiscard]] bool ask(uid_t uid, double seconds = 20) {
        return platform::names_ask(uid, seconds, [this](const known_names &names) { heard.push_back(text_of(names)); });
    }
    void wait_for(std::size_t answers) {
        EXPECT_TRUE(serve_until([&] { return heard.size() >= answers; }));
    }
};

TEST_F(Names, AreThoseOfTheSystem) {
    open(/*hangs=*/false);
    ASSERT_TRUE(ask(7));
    wait_for(1);
    ASSERT_TRUE(ask(8));
    wait_for(2);
    EXPECT_THAT(heard, ElementsAre("seven 70 -", "8 70 -"));
}

TEST_F(Names, AreAskedForAtTheStart) {
    open(/*hangs=*/false);
    EXPECT_EQ(platform::names_wait(20).viewers, gid_t{70});
}

TEST_F(Names, ASystemThatHangsIsNotWaitedForLong) {
    open(/*hangs=*/true);
    EXPECT_FALSE(platform::names_wait(0.01).viewers);
    ASSERT_TRUE(ask(7, 0.02));
    wait_for(1);
    EXPECT_THAT(heard, ElementsAre("7 - - unknown"));
}

TEST_F(Names, WhatWasKnownBeforeIsTakenWhenTheSystemHangs) {
    const auto hangs = std::make_shared<bool>(false);
    platform::name_service service = system.service(/*hangs=*/false);
    service.user = [hangs, wait = system.may_go_on](uid_t) {
        if (*hangs) wait.wait();
        return std::string("seven");
    };
    ASSERT_EQ(platform::names_open("lookers", "changers", service).text, "");
    ASSERT_TRUE(ask(7));
    wait_for(1);
    *hangs = true;
    ASSERT_TRUE(ask(7, 0.02));
    wait_for(2);
    EXPECT_THAT(heard, ElementsAre("seven 70 -", "seven 70 -"));
}

TEST_F(Names, OnlySoManyMayWait) {
    open(/*hangs=*/true);
    int asked = 0;
    while (asked < 1000 && ask(7, 0.05)) ++asked;
    EXPECT_EQ(asked, 64);
    wait_for(64);
    EXPECT_TRUE(ask(7, 0.05));
}

TEST_F(Names, WhatIsAskedStillAtTheEndIsAnsweredNobody) {
    open(/*hangs=*/true);
    ASSERT_TRUE(ask(7, 0.001));
    platform::names_close();
    event_base_loop(platform::loop_base(), EVLOOP_ONCE | EVLOOP_NONBLOCK);
    EXPECT_TRUE(heard.empty());
    EXPECT_FALSE(ask(7));
}

}  // namespace
