// SPDX-License-Identifier: Apache-2.0
// Who may do what: users and groups of the process at the other end, tried as others than root.
#include "management/management_peer.h"

#include <grp.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include "management/management_names.h"
#include "management_client.h"

namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

// ---- Who may do what ----

TEST(ManagementRights, ComeFromUserAndGroups) {
    const platform::management_groups groups{100, 200};
    const auto rights = [&](uid_t uid, std::vector<gid_t> gids) {
        const platform::management_rights r =
            platform::management_rights_of({1, uid, std::move(gids), "u", "-"}, groups);
        return std::to_string(r.privilege) + (r.may_change ? " changes" : " looks");
    };
    EXPECT_EQ(rights(0, {}), "31 changes");
    EXPECT_EQ(rights(1000, {5, 200}), "31 changes");
    EXPECT_EQ(rights(1000, {100, 200}), "31 changes");
    EXPECT_EQ(rights(1000, {5, 100}), "2 looks");
    EXPECT_EQ(rights(1000, {5}), "0 looks");
    EXPECT_EQ(rights(1000, {}), "0 looks");
    EXPECT_EQ(platform::management_rights_of({1, 1000, {0}, "u", "-"}, {}).privilege, 0);
}

// Runs in a child as another user: sends the frames and writes what came back to the pipe, until the daemon closes.
std::string talk_as(const std::string &path, uid_t uid, const std::vector<gid_t> &groups,
                    const std::string &send_this) {
    int pipe_fds[2];
    EXPECT_EQ(pipe(pipe_fds), 0);
    const pid_t child = fork();
    if (child == 0) {
        if (setgroups(groups.size(), groups.data()) != 0 || setgid(groups.at(0)) != 0 || setuid(uid) != 0) _exit(3);
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, path.c_str());
        if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) {
            (void)!write(pipe_fds[1], "cannot connect", 14);
            _exit(2);
        }
        (void)!::send(fd, send_this.data(), send_this.size(), MSG_NOSIGNAL);
        char piece[4096];
        for (ssize_t got; (got = read(fd, piece, sizeof(piece))) > 0;)
            (void)!write(pipe_fds[1], piece, static_cast<std::size_t>(got));
        _exit(0);
    }
    close(pipe_fds[1]);
    std::string heard;
    EXPECT_TRUE(serve_until([&] {
        pollfd wait{pipe_fds[0], POLLIN, 0};
        if (poll(&wait, 1, 0) <= 0) return false;
        char piece[4096];
        const ssize_t got = read(pipe_fds[0], piece, sizeof(piece));
        if (got > 0) heard.append(piece, static_cast<std::size_t>(got));
        return got <= 0;
    }));
    close(pipe_fds[0]);
    waitpid(child, nullptr, 0);
    return heard;
}

constexpr uid_t somebody = 65533;

struct ManagementPeers : Management {
    gid_t viewers = platform::system_names().group_id("games").value();
    gid_t admins = platform::system_names().group_id("news").value();
    gid_t others = platform::system_names().group_id("nogroup").value();
    const std::string hello{protocol::as_text(protocol::hello_frame({1, 31, 4}))};
    ManagementPeers() {
        if (geteuid() != 0) return;
        open({.viewers = "games", .admins = "news"});
    }
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "acting as other users needs root";
    }
    static std::string run(const std::string &line) {
        return std::string(protocol::as_text(protocol::run_frame({1, 0, 0, 0, line})));
    }
};

TEST_F(ManagementPeers, NobodyElseGetsIn) {
    EXPECT_EQ(talk_as(path, somebody, {others}, hello), "cannot connect");
    EXPECT_THAT(platform::log_recent(), IsEmpty());
}

TEST_F(ManagementPeers, NobodyElseIsServedEvenIfTheFileLetsThemIn) {
    chmod(path.c_str(), 0666);
    const std::string heard = talk_as(path, somebody, {others}, hello);
    EXPECT_THAT(heard, HasSubstr("permission denied: user 65533 is no member of group games or news"));
    EXPECT_THAT(platform::log_recent(), ElementsAre(AllOf(HasSubstr("management: refused user 65533 (65533), process "),
                                                          EndsWith(": no member of group games or news"))));
}

TEST_F(ManagementPeers, AdministratorsMayDoEverything) {
    const std::string heard = talk_as(path, somebody, {others, admins}, hello + run("test change") + run("exit"));
    EXPECT_THAT(heard, AllOf(HasSubstr("before\n"), HasSubstr("after\n")));
    EXPECT_THAT(platform::log_recent(),
                ElementsAre(AllOf(HasSubstr(" audit: user 65533, session 1: opened by process "),
                                  EndsWith(" with privilege 31")),
                            EndsWith(" audit: user 65533, session 1: test change: done"),
                            EndsWith(" audit: user 65533, session 1: closed")));
}

TEST_F(ManagementPeers, WhomTheyActForStandsBesideThem) {
    const std::string alice(protocol::as_text(protocol::behalf_frame("alice")));
    (void)talk_as(path, somebody, {others, admins}, hello + alice + run("test change") + run("exit"));
    EXPECT_THAT(platform::log_recent(),
                Contains(EndsWith(" audit: user 65533 for alice, session 1: test change: done")));
}

TEST_F(ManagementPeers, ActingForNobodyBreaksTheProtocol) {
    const std::string nobody(protocol::as_text(protocol::behalf_frame("al ice")));
    const std::string heard = talk_as(path, somebody, {others, admins}, hello + nobody + run("test change"));
    EXPECT_THAT(heard, Not(HasSubstr("after")));
    EXPECT_THAT(platform::log_recent(), Not(Contains(HasSubstr("test change"))));
}

TEST_F(ManagementPeers, ViewersMayLook) {
    big_size = 1;
    const std::string heard = talk_as(path, somebody, {others, viewers}, hello + run("show test big") + run("exit"));
    EXPECT_THAT(heard, HasSubstr(std::string(99, 'x') + "\n"));
    EXPECT_THAT(platform::log_recent(), ElementsAre(EndsWith(" with privilege 2"), EndsWith(" closed")));
}

TEST_F(ManagementPeers, ViewersMayNotChange) {
    for (const std::string &line : {std::string("test change"), std::string("configure terminal")}) {
        const std::string heard = talk_as(path, somebody, {viewers}, hello + run(line) + run("exit"));
        EXPECT_THAT(heard, HasSubstr("% Not allowed for your group\n"));
        EXPECT_THAT(heard, Not(HasSubstr("before")));
        EXPECT_THAT(platform::log_recent(),
                    Contains(EndsWith("user 65533 may only use show commands, refused: " + line)));
    }
}

TEST_F(ManagementPeers, ViewersAreNotToldOfWhatTheyMayNotRun) {
    const auto ask = [](frame_type type, const std::string &line) {
        return std::string(protocol::as_text(protocol::ask_frame(type, {1, line})));
    };
    const std::string heard = talk_as(path, somebody, {viewers},
                                      hello + ask(frame_type::help, "") + ask(frame_type::complete, "terminal ") +
                                          ask(frame_type::complete, "show test b") + run("exit"));
    for (const char *word : {"show", "exit", "terminal", "length", "big"}) EXPECT_THAT(heard, HasSubstr(word));
    for (const char *word : {"configure", "reload", "test change", "monitor", "write"})
        EXPECT_THAT(heard, Not(HasSubstr(word)));
}

TEST_F(ManagementPeers, ViewersCannotStartInConfigurationMode) {
    const std::string heard =
        talk_as(path, somebody, {viewers}, std::string(protocol::as_text(protocol::hello_frame({1, 31, 5}))));
    EXPECT_THAT(heard, HasSubstr("user 65533 cannot start in mode 5"));
}

// ---- How many ----

// A client whose connection was made as another user.
std::unique_ptr<client> connect_as(const std::string &path, uid_t uid, gid_t group) {
    EXPECT_EQ(setegid(group), 0);
    EXPECT_EQ(seteuid(uid), 0);
    auto out = std::make_unique<client>(path);
    EXPECT_EQ(seteuid(0), 0);
    EXPECT_EQ(setegid(0), 0);
    return out;
}

struct ManagementRoom : ManagementPeers {
    void reopen(management_settings settings) {
        settings.viewers = "games";
        settings.admins = "news";
        open(settings);
    }
    [[nodiscard]] std::unique_ptr<client> greeted(uid_t uid, gid_t group) const {
        auto out = connect_as(path, uid, group);
        greet(*out);
        return out;
    }
    [[nodiscard]] std::string refused(uid_t uid, gid_t group) const {
        const auto out = connect_as(path, uid, group);
        const std::string why = refusal_of(out->next());
        out->expect_closed();
        return why;
    }
};

TEST_F(ManagementRoom, TheLastSessionsAreKeptForThoseWhoMayChangeSomething) {
    reopen({.sessions = 3, .kept_sessions = 2});
    const auto viewer = greeted(somebody, viewers);
    EXPECT_EQ(refused(somebody, viewers),
              "2 all sessions for viewers are in use; the last 2 are kept for root and administrators");
    const auto admin = greeted(somebody, admins);
    const auto root = greeted(0, 0);
    EXPECT_EQ(refused(0, 0), "2 all 3 sessions are in use; end one of them first");
    for (const auto *each : {&viewer, &admin, &root}) expect_served(**each);
}

TEST_F(ManagementRoom, AUserHasSoManySessionsAndRootMore) {
    reopen({.per_user = 2});
    const auto first = greeted(somebody, viewers);
    auto second = greeted(somebody, viewers);
    EXPECT_EQ(refused(somebody, viewers), "2 user 65533 has 2 sessions; end one of them first");
    const auto other = greeted(somebody - 1, viewers);
    std::vector<std::unique_ptr<client>> roots;
    for (int i = 0; i < 3; ++i) roots.push_back(greeted(0, 0));
    second.reset();
    EXPECT_TRUE(serve_until([] { return management_sessions() == 5; }));
    const auto again = greeted(somebody, viewers);
    expect_served(*again);
}

TEST_F(ManagementRoom, WhoIsRefusedCannotFillTheLog) {
    reopen({});
    platform::log_hold_repeats();
    chmod(path.c_str(), 0666);
    for (int i = 0; i < 40; ++i)
        EXPECT_THAT(refused(somebody, others), HasSubstr("1 permission denied: user 65533 is no member of"));
    EXPECT_THAT(platform::log_recent(), SizeIs(10));
    platform::log_tell_repeats();
    EXPECT_THAT(platform::log_recent().back(), HasSubstr("30 "));
}

}  // namespace
