// SPDX-License-Identifier: Apache-2.0
// The management socket from its clients' side: its file, its sessions, and what they are answered.
#include "management/management.h"

#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "management/management_socket.h"
#include "management_client.h"

namespace {

using testing::EndsWith;
using testing::SizeIs;

// ---- The file ----

TEST_F(Management, MakesItsFolderAndASocketForOwnerAndGroup) {
    open();
    struct stat file {};
    ASSERT_EQ(stat((folder + "/run").c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 07777, 0755U);
    ASSERT_EQ(stat(path.c_str(), &file), 0);
    EXPECT_TRUE(S_ISSOCK(file.st_mode));
    EXPECT_EQ(file.st_mode & 07777, 0660U);
}

TEST_F(Management, GivesTheSocketToTheViewersGroup) {
    open({.viewers = "games"});
    struct stat file {};
    ASSERT_EQ(stat(path.c_str(), &file), 0);
    EXPECT_EQ(file.st_gid, platform::system_names().group_id("games"));
}

TEST_F(Management, RemovesItsFileWhenItCloses) {
    open();
    platform::management_close();
    EXPECT_NE(access(path.c_str(), F_OK), 0);
}

TEST_F(Management, TakesAStaleSocketOver) {
    mkdir((folder + "/run").c_str(), 0755);
    const int old = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path.c_str());
    ASSERT_EQ(bind(old, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
    ASSERT_EQ(listen(old, 1), 0);
    close(old);
    EXPECT_EQ(platform::management_check(path).text, "");
    open();
    client c(path);
    greet(c);
    expect_served(c);
}

TEST_F(Management, IsRefusedWhereALivingOneListensAndThatOneIsUnharmed) {
    open();
    client c(path);
    greet(c);
    const std::string reason =
        path + ": another ravod (process " + std::to_string(getpid()) +
        ") is listening on this management socket; stop it; choose another socket with --management";
    EXPECT_EQ(platform::management_check(path).text, reason);
    platform::management_socket second;
    EXPECT_EQ(platform::management_socket_listen(path, {}, &second).text, reason);
    expect_served(c);
    client later(path);
    greet(later);
}

TEST_F(Management, LeavesAFileAloneThatIsNoSocket) {
    mkdir((folder + "/run").c_str(), 0755);
    FILE *file = fopen(path.c_str(), "w");
    ASSERT_NE(file, nullptr);
    fputs("precious", file);
    fclose(file);
    const std::string reason = path + ": is no socket; remove it; choose another socket with --management";
    EXPECT_EQ(platform::management_check(path).text, reason);
    EXPECT_EQ(platform::management_open(path).text, reason);
    struct stat found {};
    ASSERT_EQ(stat(path.c_str(), &found), 0);
    EXPECT_EQ(found.st_size, 8);
}

TEST_F(Management, RefusesAPathThatIsTooLongOrHasNoFolder) {
    const std::string too_long = folder + "/" + std::string(108, 'x');
    EXPECT_EQ(
        platform::management_open(too_long).text,
        too_long + ": the management socket's path must have 1 to 107 bytes; choose another socket with --management");
    EXPECT_EQ(platform::management_open(folder + "/a/b/c.sock").text,
              folder +
                  "/a/b: cannot make the management socket's folder: No such file or directory; choose another socket "
                  "with --management");
}

TEST_F(Management, DoesNotRemoveAFileThatAnotherPutInItsPlace) {
    open();
    const std::string other = folder + "/run/other";
    platform::management_socket second;
    ASSERT_EQ(platform::management_socket_listen(other, {}, &second).text, "");
    ASSERT_EQ(rename(other.c_str(), path.c_str()), 0);
    platform::management_close();
    EXPECT_EQ(access(path.c_str(), F_OK), 0);
}

// ---- A session ----

TEST_F(Management, WelcomesAndRunsCommandsInOrder) {
    open();
    client c(path);
    c.hello();
    const frame welcome = c.next();
    ASSERT_EQ(welcome.type, frame_type::welcome);
    const auto m = protocol::read_welcome(protocol::as_bytes(welcome.payload));
    ASSERT_TRUE(m);
    EXPECT_EQ(m->privilege, 31);
    EXPECT_EQ(m->may_change, 1);
    EXPECT_EQ(m->mode, CLI_MODE_EXEC);
    EXPECT_EQ(m->prompt, "#");
    EXPECT_EQ(m->daemon_version, RAVO_VERSION);
    c.run("configure terminal", 5);
    c.run("end\r\n", 6);
    protocol::status_message status = status_of(c.answer());
    EXPECT_EQ(status.id, 5U);
    EXPECT_EQ(status.result, 0);
    EXPECT_EQ(status.mode, CLI_MODE_CONFIGURATION);
    EXPECT_EQ(status.prompt, "(config)#");
    EXPECT_EQ(status.flags, 0);
    status = status_of(c.answer());
    EXPECT_EQ(status.id, 6U);
    EXPECT_EQ(status.mode, CLI_MODE_EXEC);
}

TEST_F(Management, StartsInConfigurationModeWhenAsked) {
    open();
    client c(path);
    c.hello(31, CLI_MODE_CONFIGURATION);
    const frame welcome = c.next();
    ASSERT_EQ(welcome.type, frame_type::welcome);
    EXPECT_EQ(protocol::read_welcome(protocol::as_bytes(welcome.payload))->prompt, "(config)#");
    client other(path);
    other.hello(31, 99);
    EXPECT_EQ(refusal_of(other.next()), "1 user root cannot start in mode 99: only modes 4 and 5 are started in");
    other.expect_closed();
}

TEST_F(Management, GrantsNoMorePrivilegeThanWanted) {
    open();
    client c(path);
    c.hello(20);
    const frame welcome = c.next();
    ASSERT_EQ(welcome.type, frame_type::welcome);
    EXPECT_EQ(protocol::read_welcome(protocol::as_bytes(welcome.payload))->privilege, 20);
}

TEST_F(Management, EndsTheSessionWhenACommandDoes) {
    open();
    client c(path);
    greet(c);
    c.run("exit");
    EXPECT_EQ(status_of(c.answer()).flags, protocol::status_closed);
    c.expect_closed();
    EXPECT_TRUE(serve_until([] { return management_sessions() == 0; }));
}

TEST_F(Management, KeepsRecordsInTheirPlaceAmongTheText) {
    open();
    client c(path);
    greet(c);
    c.run("show test record");
    const std::vector<frame> got = c.answer();
    ASSERT_THAT(got, SizeIs(4));
    EXPECT_EQ(got[0].payload, "before\n");
    EXPECT_EQ(got[1].type, frame_type::record);
    EXPECT_EQ(got[1].payload, "\1\2\3");
    EXPECT_EQ(got[2].payload, "after\n");
}

TEST_F(Management, SendsRowKeysAndKeyedValues) {
    open();
    client c(path);
    greet(c);
    c.run("show test row", 1, CLI_VIEW_KEYED);
    const std::vector<frame> got = c.answer();
    ASSERT_THAT(got, SizeIs(3));
    EXPECT_EQ(got[0].type, frame_type::row_key);
    EXPECT_EQ(got[0].payload, "\x0A\x0B");
    ASSERT_EQ(got[1].type, frame_type::value);
    const auto value = protocol::read_value(protocol::as_bytes(got[1].payload));
    ASSERT_TRUE(value);
    EXPECT_EQ(value->key, "\3");
    EXPECT_EQ(value->text, "42\n");
    EXPECT_EQ(status_of(got).result, 0);
}

TEST_F(Management, HelpsAndCompletes) {
    open();
    client c(path);
    greet(c);
    c.send_frame(protocol::ask_frame(frame_type::help, {3, "show test rec"}));
    std::vector<frame> got = c.answer();
    ASSERT_THAT(got, SizeIs(2));
    EXPECT_EQ(protocol::read_help(protocol::as_bytes(got[0].payload))->word, "record");
    EXPECT_EQ(status_of(got).id, 3U);
    c.send_frame(protocol::ask_frame(frame_type::complete, {4, "show test b"}));
    got = c.answer();
    ASSERT_THAT(got, SizeIs(2));
    EXPECT_EQ(got[0].type, frame_type::completion);
    EXPECT_EQ(got[0].payload, "big");
    EXPECT_EQ(status_of(got).id, 4U);
}

TEST_F(Management, TellsThePageLength) {
    open();
    client c(path);
    greet(c);
    c.run("show privilege");
    EXPECT_EQ(status_of(c.answer()).page, -1);
    c.run("terminal length 0");
    EXPECT_EQ(status_of(c.answer()).page, 0);
}

TEST_F(Management, ShowsTheLogToASessionThatAsked) {
    open();
    client c(path);
    greet(c);
    c.run("terminal monitor");
    EXPECT_EQ(status_of(c.answer()).result, 0);
    platform::log_line(platform::log_level_trace, "something happened");
    const frame got = c.next();
    EXPECT_EQ(got.type, frame_type::monitor);
    EXPECT_THAT(got.payload, testing::MatchesRegex("[0-9:]{8}\\.[0-9]{3} trace: something happened"));
}

TEST_F(Management, AsksThePersonBeforeAReset) {
    open();
    client c(path);
    greet(c);
    c.run("reset relay", 1, 0, protocol::run_interactive);
    const protocol::status_message status = status_of(c.answer());
    EXPECT_EQ(status.flags, protocol::status_question);
    EXPECT_THAT(status.question, EndsWith("?"));
    c.run("reset relay", 2, 0, protocol::run_interactive | protocol::run_confirmed);
    EXPECT_EQ(status_of(c.answer()).flags, 0);
}

TEST_F(Management, RefusesLinesThatNobodyCanMean) {
    open();
    client c(path);
    greet(c);
    c.run(std::string(32769, 'x'));
    std::vector<frame> got = c.answer();
    EXPECT_EQ(got[0].payload, "% Line too long: 32769 bytes, at most 32768\n");
    EXPECT_EQ(status_of(got).result, 1);
    for (const std::string &line : {std::string("show\nexit"), std::string("a\0b", 3), std::string("\033[2J")}) {
        c.run(line);
        got = c.answer();
        EXPECT_EQ(got[0].payload, "% Control characters are not allowed in a command line.\n");
        EXPECT_EQ(status_of(got).result, 1);
    }
    expect_served(c);
}

TEST_F(Management, ServesSessionsBesideEachOther) {
    open();
    client a(path);
    client b(path);
    greet(a);
    greet(b);
    a.run("configure terminal");
    EXPECT_EQ(status_of(a.answer()).prompt, "(config)#");
    b.run("show privilege");
    EXPECT_EQ(status_of(b.answer()).prompt, "#");
}

TEST_F(Management, SurvivesAClientThatLeavesWhileItsCommandRuns) {
    open();
    client c(path);
    client other(path);
    greet(c);
    greet(other);
    leaver = &c;
    c.run("show test leave");
    EXPECT_TRUE(serve_until([] { return management_sessions() == 1; }));
    expect_served(other);
}

}  // namespace
