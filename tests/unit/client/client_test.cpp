// SPDX-License-Identifier: Apache-2.0
// The client library against a scripted daemon: a thread that accepts one connection and works through a list of what
// it expects to read and what it writes.
#include "client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "management_protocol.h"

namespace {

namespace client = ravo::client;
namespace protocol = ravo::protocol;
using protocol::bytes;
using protocol::frame_type;
using testing::ElementsAre;
using testing::IsEmpty;

struct step {
    enum { expect, send, until_end } what;
    bytes data;
};

step expect(bytes data) {
    return {step::expect, std::move(data)};
}
step send(bytes data) {
    return {step::send, std::move(data)};
}
step until_it_leaves() {
    return {step::until_end, {}};
}
step welcome() {
    return send(protocol::welcome_frame({1, 31, 1, 4, "#", "9.9"}));
}
step hello() {
    return expect(protocol::hello_frame({1, 31, 4}));
}
step output(const std::string &text) {
    return send(protocol::make_frame(frame_type::output, text));
}
step monitor(const std::string &text) {
    return send(protocol::make_frame(frame_type::monitor, text));
}
step status(std::uint32_t id, std::int32_t result) {
    return send(protocol::status_frame({id, result, 0, 5, 12, "(config)#", ""}));
}
step asked_to_run(std::uint32_t id, const std::string &line) {
    return expect(protocol::run_frame({id, 1, 0, 0, line}));
}

int listen_on(const std::string &path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path.c_str());
    EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
    EXPECT_EQ(listen(fd, 1), 0);
    return fd;
}

bytes read_bytes(int fd, std::size_t length) {
    bytes got(length);
    std::size_t have = 0;
    while (have < length) {
        const ssize_t more = recv(fd, got.data() + have, length - have, 0);
        if (more <= 0) break;
        have += static_cast<std::size_t>(more);
    }
    got.resize(have);
    return got;
}

struct Client : testing::Test {
    std::string folder;
    std::string path;
    int listener = -1;
    std::thread daemon;
    std::string reason;

    Client() {
        char name[] = "/tmp/ravo-client-XXXXXX";
        folder = mkdtemp(name);
        path = folder + "/sock";
    }
    ~Client() override {
        finish();
        unlink(path.c_str());
        rmdir(folder.c_str());
    }
    void play(std::vector<step> script) {
        listener = listen_on(path);
        daemon = std::thread([this, script = std::move(script)] {
            const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            for (const step &s : script) {
                if (s.what == step::expect) {
                    EXPECT_EQ(read_bytes(fd, s.data.size()), s.data);
                } else if (s.what == step::until_end) {
                    EXPECT_THAT(read_bytes(fd, 1), IsEmpty());
                } else {
                    EXPECT_EQ(::send(fd, s.data.data(), s.data.size(), MSG_NOSIGNAL),
                              static_cast<ssize_t>(s.data.size()));
                }
            }
            close(fd);
        });
    }
    void finish() {
        if (daemon.joinable()) daemon.join();
        if (listener >= 0) close(listener);
        listener = -1;
    }
    client::connection_ptr open(int timeout_seconds = 20) {
        client::connection_ptr opened;
        reason = client::open({.socket = path, .timeout_seconds = timeout_seconds}, &opened).text;
        return opened;
    }
};

// What handlers were given, one line each.
struct heard {
    std::vector<std::string> lines;
    client::handlers to;
    heard() {
        to.text = [this](std::string_view text) { lines.push_back("text " + std::string(text)); };
        to.value = [this](std::span<const std::uint8_t> key, std::string_view text) {
            lines.push_back("value " + std::string(protocol::as_text(key)) + "=" + std::string(text));
        };
        to.record = [this](std::span<const std::uint8_t> r) {
            lines.push_back("record " + std::string(protocol::as_text(r)));
        };
        to.row_key = [this](std::span<const std::uint8_t> k) {
            lines.push_back("row " + std::string(protocol::as_text(k)));
        };
        to.monitor = [this](std::string_view line) { lines.push_back("log " + std::string(line)); };
    }
};

TEST_F(Client, OpensASessionAndKnowsWhatItIs) {
    play({hello(), welcome()});
    const client::connection_ptr c = open();
    ASSERT_NE(c, nullptr) << reason;
    EXPECT_EQ(client::state(*c).privilege, 31);
    EXPECT_TRUE(client::state(*c).may_change);
    EXPECT_EQ(client::state(*c).mode, 4);
    EXPECT_EQ(client::state(*c).prompt, "#");
    EXPECT_EQ(client::state(*c).page, -1);
    EXPECT_EQ(client::state(*c).daemon_version, "9.9");
}

TEST_F(Client, HandsOnEveryKindOfAnswerInOrder) {
    play({hello(), welcome(), asked_to_run(1, "show"), output("one\n"), monitor("traced"),
          send(protocol::make_frame(frame_type::row_key, "k")),
          send(protocol::value_frame(protocol::as_bytes("c"), "5\n")),
          send(protocol::make_frame(frame_type::record, "rec")), output("two\n"), status(1, 4)});
    const client::connection_ptr c = open();
    ASSERT_NE(c, nullptr) << reason;
    heard h;
    const client::answer a = client::run(*c, {.line = "show"}, h.to);
    EXPECT_EQ(a.outcome, client::outcome::answered);
    EXPECT_EQ(a.result, 4);
    EXPECT_THAT(h.lines, ElementsAre("text one\n", "log traced", "row k", "value c=5\n", "record rec", "text two\n"));
    EXPECT_EQ(client::state(*c).mode, 5);
    EXPECT_EQ(client::state(*c).prompt, "(config)#");
    EXPECT_EQ(client::state(*c).page, 12);
    EXPECT_FALSE(client::state(*c).closed);
}

TEST_F(Client, AsksForTheViewAndForAllLines) {
    play({hello(), welcome(), expect(protocol::run_frame({1, 6, 1, 0, "show"})), status(1, 0)});
    const client::connection_ptr c = open();
    ASSERT_NE(c, nullptr) << reason;
    const std::uint8_t both = client::view_settings | client::view_keyed;
    EXPECT_EQ(client::run(*c, {.line = "show", .view = both, .show_all = true}, {}).result, 0);
}

TEST_F(Client, PutsAQuestionAndTheAnswerAcross) {
    play({hello(), welcome(), expect(protocol::run_frame({1, 1, 0, 1, "reset"})),
          send(protocol::status_frame({1, 1, protocol::status_question, 4, -1, "#", "Sure?"})),
          expect(protocol::run_frame({2, 1, 0, 3, "reset"})),
          send(protocol::status_frame({2, 0, protocol::status_closed, 4, -1, "#", ""}))});
    const client::connection_ptr c = open();
    ASSERT_NE(c, nullptr) << reason;
    EXPECT_EQ(client::run(*c, {.line = "reset", .interactive = true}, {}).question, "Sure?");
    const client::answer a = client::run(*c, {.line = "reset", .interactive = true, .confirmed = true}, {});
    EXPECT_EQ(a.question, "");
    EXPECT_EQ(a.result, 0);
    EXPECT_TRUE(client::state(*c).closed);
}

TEST_F(Client, AsksForHelpAndCompletions) {
    play({hello(), welcome(), expect(protocol::ask_frame(frame_type::help, {1, "sh"})),
          send(protocol::help_frame({"show", "Look"})), send(protocol::help_frame({"<cr>", ""})), status(1, 0),
          expect(protocol::ask_frame(frame_type::complete, {2, "sh"})),
          send(protocol::make_frame(frame_type::completion, "show")), status(2, 0)});
    const client::connection_ptr c = open();
    ASSERT_NE(c, nullptr) << reason;
    std::vector<client::help_row> rows;
    EXPECT_EQ(client::help(*c, "sh", &rows).result, 0);
    ASSERT_EQ(rows.size(), 2U);
    EXPECT_EQ(rows[0].word + " " + rows[0].text, "show Look");
    EXPECT_EQ(rows[1].word, "<cr>");
    std::vector<std::string> words;
    EXPECT_EQ(client::complete(*c, "sh", &words).result, 0);
    EXPECT_THAT(words, ElementsAre("show"));
}

TEST_F(Client, TellsTheDaemonsReasonEvenWhenItHasClosedAlready) {
    play({send(protocol::refused_frame({protocol::refusal::too_many, "all 64 sessions are in use"}))});
    EXPECT_EQ(open(), nullptr);
    EXPECT_EQ(reason, path + ": all 64 sessions are in use");
}

TEST_F(Client, TellsWhyTheDaemonCannotBeReached) {
    EXPECT_EQ(open(), nullptr);
    EXPECT_EQ(reason, path + ": no ravod is running there: there is no such socket");
    close(listen_on(path));
    EXPECT_EQ(open(), nullptr);
    EXPECT_EQ(reason, path + ": no ravod is running there: nobody listens on the socket");
    path = folder + std::string(108, 'x');
    EXPECT_EQ(open(), nullptr);
    EXPECT_EQ(reason, path + ": a socket's path must have 1 to 107 bytes");
}

TEST_F(Client, GivesUpOnADaemonThatDoesNotAnswer) {
    listener = listen_on(path);
    EXPECT_EQ(open(/*timeout_seconds=*/0), nullptr);
    EXPECT_EQ(reason, path + ": ravod does not answer");
}

TEST_F(Client, TellsThatTheConnectionBrokeInTheMiddleOfAnAnswer) {
    play({hello(), welcome(), asked_to_run(1, "show"), output("half")});
    const client::connection_ptr c = open();
    ASSERT_NE(c, nullptr) << reason;
    heard h;
    const client::answer a = client::run(*c, {.line = "show"}, h.to);
    EXPECT_EQ(a.outcome, client::outcome::lost);
    EXPECT_EQ(a.reason, path + ": ravod has closed the connection");
    EXPECT_THAT(h.lines, ElementsAre("text half"));
    EXPECT_EQ(client::descriptor(*c), -1);
    EXPECT_EQ(client::run(*c, {.line = "show"}, {}).reason, path + ": not connected");
}

TEST_F(Client, DoesNotBelieveJunk) {
    const std::vector<bytes> junk = {
        {'H', 'T', 'T', 'P', '/', '1'},                      // no type of ours
        {131, 0x7F, 0xFF, 0xFF, 0xFF},                       // claims two gigabytes
        protocol::make_frame(frame_type::status, "short"),   // a status without its fields
        protocol::make_frame(frame_type::value, "\x7F"),     // a key that is not there
        protocol::make_frame(frame_type::help_row, "x"),     // a word that is not there
        protocol::welcome_frame({1, 31, 1, 4, "#", "9.9"}),  // a second welcome
        protocol::status_frame({77, 0, 0, 4, -1, "#", ""}),  // the end of another request
    };
    for (const bytes &data : junk) {
        play({hello(), welcome(), asked_to_run(1, "show"), send(data)});
        const client::connection_ptr c = open();
        ASSERT_NE(c, nullptr) << reason;
        const client::answer a = client::run(*c, {.line = "show"}, {});
        EXPECT_EQ(a.outcome, client::outcome::lost);
        EXPECT_THAT(a.reason, testing::StartsWith(path + ": "));
        EXPECT_EQ(client::descriptor(*c), -1);
        finish();
        unlink(path.c_str());
    }
}

TEST_F(Client, HandsOnLinesOfTheLogThatComeWithAStatus) {
    bytes together = protocol::status_frame({1, 0, 0, 4, -1, "#", ""});
    for (const bytes &frame :
         {protocol::make_frame(frame_type::monitor, "a"), protocol::make_frame(frame_type::monitor, "b")})
        together.insert(together.end(), frame.begin(), frame.end());
    play({hello(), welcome(), asked_to_run(1, "show"), send(together)});
    const client::connection_ptr c = open();
    ASSERT_NE(c, nullptr) << reason;
    heard h;
    EXPECT_EQ(client::run(*c, {.line = "show"}, h.to).result, 0);
    ravo::fault why;
    while (!(why = client::attend(*c, h.to))) {
        pollfd wait{client::descriptor(*c), POLLIN, 0};
        poll(&wait, 1, -1);
    }
    EXPECT_THAT(h.lines, ElementsAre("log a", "log b"));
    EXPECT_EQ(why.text, path + ": ravod has closed the connection");
    EXPECT_EQ(client::attend(*c, h.to).text, path + ": not connected");
}

TEST_F(Client, GivesUpWhenCancelled) {
    play({hello(), welcome(), asked_to_run(1, "show"), until_it_leaves()});
    const client::connection_ptr c = open();
    ASSERT_NE(c, nullptr) << reason;
    int asked = 0;
    client::handlers to;
    to.cancelled = [&asked] { return ++asked == 3; };
    EXPECT_EQ(client::run(*c, {.line = "show"}, to).outcome, client::outcome::cancelled);
    EXPECT_EQ(client::descriptor(*c), -1);
}

TEST_F(Client, ReadsFramesInPiecesOfOneByte) {
    std::vector<step> script = {hello(), welcome(), asked_to_run(1, "show")};
    bytes all = protocol::make_frame(frame_type::output, "text\n");
    const bytes end = protocol::status_frame({1, 0, 0, 4, -1, "#", ""});
    all.insert(all.end(), end.begin(), end.end());
    for (const std::uint8_t byte : all) script.push_back(send({byte}));
    play(script);
    const client::connection_ptr c = open();
    ASSERT_NE(c, nullptr) << reason;
    heard h;
    EXPECT_EQ(client::run(*c, {.line = "show"}, h.to).result, 0);
    EXPECT_THAT(h.lines, ElementsAre("text text\n"));
}

}  // namespace
