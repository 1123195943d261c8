// The management socket from its clients' side, in one process: the daemon's loop runs in this thread, clients are
// plain sockets that send and read bytes.
#include "management/management.h"

#include <event2/event.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "all_commands.h"
#include "base/loop.h"
#include "cli.h"
#include "cli/command_line.h"
#include "log/log.h"
#include "management/management_open.h"
#include "management/management_peer.h"
#include "management/management_socket.h"
#include "management_protocol.h"
#include "uib.h"

namespace {

using ravo::platform::management_sessions;
using ravo::platform::management_settings;
using ravo::protocol::bytes;
using ravo::protocol::frame_type;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
namespace platform = ravo::platform;
namespace protocol = ravo::protocol;
using steady = std::chrono::steady_clock;

constexpr std::chrono::seconds limit{20};

// Lets the daemon work until something has happened.
[[nodiscard]] bool serve_until(const std::function<bool()> &happened) {
    const auto end = steady::now() + limit;
    while (!happened()) {
        if (steady::now() > end) return false;
        // The loop must not sleep: what is waited for may happen outside of it.
        event_base_loop(platform::loop_base(), EVLOOP_ONCE | EVLOOP_NONBLOCK);
    }
    return true;
}

// ---- Commands of the test's own ----

std::size_t big_size = 0;

int print_big(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    const std::string line(99, 'x');
    for (std::size_t sent = 0; sent < big_size; sent += line.size() + 1)
        if (cli->print(cli->print_handle, "%s\n", line.c_str()) < 0) return 7;
    return 0;
}

int send_record(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    cli->print(cli->print_handle, "before\n");
    const int result = UIB_WEB_Msg_Send(cli, "\1\2\3", 3);
    cli->print(cli->print_handle, "after\n");
    return result;
}

int send_row(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    if (uib_snmp_key_send(cli, "\x0A\x0B", 2) != 0) return 1;
    return cli->view_print(cli->view_buffer, "\3", 1, "%d\n", 42);
}

int drop_everyone(struct cli *cli, int argc, char **argv);

const char *const help_texts[] = {"Test", "Test", "Test", nullptr};
cli_element commands[] = {
    {"show test big", print_big, help_texts, {}}, {"show test record", send_record, help_texts, {}},
    {"show test row", send_row, help_texts, {}},  {"show test leave", drop_everyone, help_texts, {}},
    {"test change", send_record, nullptr, {}},
};
constexpr ravo::cli::command_traits shows = {.effect = ravo::cli::command_effect::looks,
                                             .who = ravo::cli::audience::viewers};
constexpr ravo::cli::known_command shown[] = {
    {CLI_MODE_EXEC, "show test big", shows},
    {CLI_MODE_EXEC, "show test record", shows},
    {CLI_MODE_EXEC, "show test row", shows},
    {CLI_MODE_EXEC, "show test leave", shows},
};

void install_commands() {
    static bool done = false;
    if (done) return;
    done = true;
    install_platform();
    ravo::cli::expect_commands(ravo::cli::library_globals()->tree, shown);
    for (cli_element &element : commands)
        ASSERT_EQ(cli_install_gen(ravo::cli::library_globals()->tree, CLI_MODE_EXEC, 2, 0, &element), 0);
}

// ---- A client ----

struct frame {
    frame_type type;
    std::string payload;
};

struct client {
    int fd = -1;
    std::string in;
    bool ended = false;

    explicit client(const std::string &path) {
        fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, path.c_str());
        EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0) << strerror(errno);
    }
    client(const client &) = delete;
    client &operator=(const client &) = delete;
    ~client() { leave(); }
    void leave() {
        if (fd >= 0) close(fd);
        fd = -1;
    }
    // Sends what goes at once. Returns the number of bytes.
    std::size_t send_some(std::string_view data) {
        const ssize_t sent = ::send(fd, data.data(), data.size(), MSG_NOSIGNAL);
        return sent > 0 ? static_cast<std::size_t>(sent) : 0;
    }
    void send_frame(const bytes &data) { EXPECT_EQ(send_some(protocol::as_text(data)), data.size()); }
    void hello(int privilege = 31, int mode = 4) {
        send_frame(protocol::hello_frame({1, static_cast<std::uint8_t>(privilege), static_cast<std::uint8_t>(mode)}));
    }
    void run(const std::string &line, unsigned id = 1, unsigned view = 0, unsigned flags = 0) {
        send_frame(
            protocol::run_frame({id, static_cast<std::uint8_t>(view), 0, static_cast<std::uint8_t>(flags), line}));
    }
    void read_some() {
        char piece[65536];
        for (;;) {
            const ssize_t got = recv(fd, piece, sizeof(piece), 0);
            if (got > 0) {
                in.append(piece, static_cast<std::size_t>(got));
                continue;
            }
            if (got == 0 || (errno != EAGAIN && errno != EINTR)) ended = true;
            return;
        }
    }
    // Takes the first whole frame off what was read.
    bool take(frame *out) {
        const auto head = protocol::read_head(protocol::as_bytes(in));
        if (!head || in.size() < protocol::head_size + head->length) return false;
        *out = {static_cast<frame_type>(head->type), in.substr(protocol::head_size, head->length)};
        in.erase(0, protocol::head_size + head->length);
        return true;
    }
    // The next frame, waited for.
    frame next() {
        frame got{frame_type::refused, "no frame came"};
        EXPECT_TRUE(serve_until([&] {
            if (take(&got)) return true;
            read_some();
            return take(&got) || ended;
        }));
        return got;
    }
    // All frames up to the next status, text put together.
    std::vector<frame> answer() {
        std::vector<frame> frames;
        do {
            frame got = next();
            if (got.type == frame_type::output && !frames.empty() && frames.back().type == frame_type::output) {
                frames.back().payload += got.payload;
            } else {
                frames.push_back(std::move(got));
            }
        } while (frames.back().type != frame_type::status && frames.back().type != frame_type::refused);
        return frames;
    }
    // Waits until the daemon has closed the connection.
    void expect_closed() {
        EXPECT_TRUE(serve_until([&] {
            if (!ended) read_some();
            return ended;
        })) << "the daemon did not close the connection";
    }
};

protocol::status_message status_of(const std::vector<frame> &answer) {
    const auto status = protocol::read_status(protocol::as_bytes(answer.back().payload));
    EXPECT_TRUE(status) << answer.back().payload;
    return status.value_or(protocol::status_message{});
}

std::string refusal_of(const frame &got) {
    EXPECT_EQ(got.type, frame_type::refused);
    const auto refused = protocol::read_refused(protocol::as_bytes(got.payload));
    return refused ? std::to_string(static_cast<int>(refused->reason)) + " " + refused->text : "no refusal";
}

// A folder of its own, and everything closed at the end.
struct Management : testing::Test {
    std::string folder;
    std::string path;
    Management() {
        char name[] = "/tmp/ravo-management-XXXXXX";
        folder = mkdtemp(name);
        chmod(folder.c_str(), 0755);
        path = folder + "/run/ravod.sock";
        install_commands();
    }
    ~Management() override {
        platform::management_close();
        platform::loop_free();
        platform::log_close();
        for (const std::string &file : {path, folder + "/run/other"}) unlink(file.c_str());
        rmdir((folder + "/run").c_str());
        EXPECT_EQ(rmdir(folder.c_str()), 0);
    }
    void open(const management_settings &settings = {}) {
        EXPECT_EQ(platform::management_open_with(path, settings), "");
    }
    // A client with its session, as root's shell has it.
    void greet(client &c) const {
        c.hello();
        EXPECT_EQ(c.next().type, frame_type::welcome);
    }
    // The session is as good as new.
    void expect_served(client &c) const {
        c.run("show privilege");
        EXPECT_EQ(status_of(c.answer()).result, 0);
    }
};

client *leaver = nullptr;

int drop_everyone(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    leaver->leave();
    cli->print(cli->print_handle, "into the void\n");
    return 0;
}

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
    EXPECT_EQ(file.st_gid, platform::management_group_id("games"));
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
    EXPECT_EQ(platform::management_check(path), "");
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
    EXPECT_EQ(platform::management_check(path), reason);
    platform::management_socket second;
    EXPECT_EQ(platform::management_socket_listen(path, {}, &second), reason);
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
    EXPECT_EQ(platform::management_check(path), reason);
    EXPECT_EQ(platform::management_open(path), reason);
    struct stat found {};
    ASSERT_EQ(stat(path.c_str(), &found), 0);
    EXPECT_EQ(found.st_size, 8);
}

TEST_F(Management, RefusesAPathThatIsTooLongOrHasNoFolder) {
    const std::string too_long = folder + "/" + std::string(108, 'x');
    EXPECT_EQ(
        platform::management_open(too_long),
        too_long + ": the management socket's path must have 1 to 107 bytes; choose another socket with --management");
    EXPECT_EQ(platform::management_open(folder + "/a/b/c.sock"),
              folder +
                  "/a/b: cannot make the management socket's folder: No such file or directory; choose another socket "
                  "with --management");
}

TEST_F(Management, DoesNotRemoveAFileThatAnotherPutInItsPlace) {
    open();
    const std::string other = folder + "/run/other";
    platform::management_socket second;
    ASSERT_EQ(platform::management_socket_listen(other, {}, &second), "");
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
    EXPECT_EQ(refusal_of(other.next()), "1 user root cannot start in mode 99");
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
    EXPECT_EQ(got.payload, "something happened");
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
    open({.frame_seconds = 0.2});
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

TEST_F(Management, LetsAnIdleSessionBe) {
    open({.frame_seconds = 0.05, .stall_seconds = 0.05});
    client c(path);
    greet(c);
    const auto end = steady::now() + std::chrono::milliseconds(300);
    EXPECT_TRUE(serve_until([&] { return steady::now() > end; }));
    expect_served(c);
}

TEST_F(Management, DropsAClientThatReadsNothingAtItsLimit) {
    open();
    client other(path);
    greet(other);
    client c(path);
    greet(c);
    big_size = std::size_t{16} << 20;
    c.run("show test big");
    EXPECT_TRUE(serve_until([] { return management_sessions() == 1; }));
    EXPECT_THAT(platform::log_recent(), Contains(HasSubstr("is closed: it does not read its output, ")));
    expect_served(other);
}

TEST_F(Management, DropsAClientThatStopsReadingAfterAWhile) {
    open({.stall_seconds = 0.1});
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

// ---- Who may do what ----

TEST(ManagementRights, ComeFromUserAndGroups) {
    const platform::management_groups groups{100, 200};
    const auto rights = [&](uid_t uid, std::vector<gid_t> gids) {
        const platform::management_rights r = platform::management_rights_of({1, uid, std::move(gids), "u"}, groups);
        return std::to_string(r.privilege) + (r.may_change ? " changes" : " looks");
    };
    EXPECT_EQ(rights(0, {}), "31 changes");
    EXPECT_EQ(rights(1000, {5, 200}), "31 changes");
    EXPECT_EQ(rights(1000, {100, 200}), "31 changes");
    EXPECT_EQ(rights(1000, {5, 100}), "2 looks");
    EXPECT_EQ(rights(1000, {5}), "0 looks");
    EXPECT_EQ(rights(1000, {}), "0 looks");
    EXPECT_EQ(platform::management_rights_of({1, 1000, {0}, "u"}, {}).privilege, 0);
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
    gid_t viewers = platform::management_group_id("games").value();
    gid_t admins = platform::management_group_id("news").value();
    gid_t others = platform::management_group_id("nogroup").value();
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
    EXPECT_THAT(platform::log_recent(), IsEmpty());
}

TEST_F(ManagementPeers, ViewersMayLook) {
    big_size = 1;
    const std::string heard = talk_as(path, somebody, {others, viewers}, hello + run("show test big") + run("exit"));
    EXPECT_THAT(heard, HasSubstr(std::string(99, 'x') + "\n"));
    EXPECT_THAT(platform::log_recent(), IsEmpty());
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

}  // namespace
