// SPDX-License-Identifier: Apache-2.0
// A client of the management socket that lives in the daemon's own process: the loop runs in this thread, clients are
// plain sockets that send and read bytes. Beside it commands of the tests' own, and the fixture that opens the socket.
#ifndef TESTS_SUPPORT_MANAGEMENT_CLIENT_H
#define TESTS_SUPPORT_MANAGEMENT_CLIENT_H

#include "management/management.h"

#include <event2/event.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "all_commands.h"
#include "base/loop.h"
#include "cli.h"
#include "cli/command_line.h"
#include "log/log.h"
#include "management/management_open.h"
#include "management_protocol.h"
#include "uib.h"

using ravo::platform::management_sessions;
using ravo::platform::management_settings;
using ravo::protocol::bytes;
using ravo::protocol::frame_type;
namespace platform = ravo::platform;
namespace protocol = ravo::protocol;
using steady = std::chrono::steady_clock;

inline constexpr std::chrono::seconds limit{20};

// Lets the daemon work until something has happened.
[[nodiscard]] inline bool serve_until(const std::function<bool()> &happened) {
    const auto end = steady::now() + limit;
    while (!happened()) {
        if (steady::now() > end) return false;
        // The loop itself must not sleep: what is waited for may happen outside of it.
        event_base_loop(platform::loop_base(), EVLOOP_ONCE | EVLOOP_NONBLOCK);
        std::this_thread::sleep_for(std::chrono::microseconds(100));  // what is waited for may take seconds
    }
    return true;
}

// ---- Commands of the test's own ----

inline std::size_t big_size = 0;

inline int print_big(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    const std::string line(99, 'x');
    for (std::size_t sent = 0; sent < big_size; sent += line.size() + 1)
        if (cli->print(cli->print_handle, "%s\n", line.c_str()) < 0) return 7;
    return 0;
}

inline int send_record(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    cli->print(cli->print_handle, "before\n");
    const int result = UIB_WEB_Msg_Send(cli, "\1\2\3", 3);
    cli->print(cli->print_handle, "after\n");
    return result;
}

inline int send_row(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    if (uib_snmp_key_send(cli, "\x0A\x0B", 2) != 0) return 1;
    return cli->view_print(cli->view_buffer, "\3", 1, "%d\n", 42);
}

inline int drop_everyone(struct cli *cli, int argc, char **argv);

inline const char *const help_texts[] = {"Test", "Test", "Test", nullptr};
inline cli_element commands[] = {
    {"show test big", print_big, help_texts, {}}, {"show test record", send_record, help_texts, {}},
    {"show test row", send_row, help_texts, {}},  {"show test leave", drop_everyone, help_texts, {}},
    {"test change", send_record, nullptr, {}},
};
inline constexpr ravo::cli::command_traits shows = {.effect = ravo::cli::command_effect::looks,
                                                    .who = ravo::cli::audience::viewers};
inline constexpr ravo::cli::known_command shown[] = {
    {CLI_MODE_EXEC, "show test big", shows},
    {CLI_MODE_EXEC, "show test record", shows},
    {CLI_MODE_EXEC, "show test row", shows},
    {CLI_MODE_EXEC, "show test leave", shows},
};

inline void install_commands() {
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

inline protocol::status_message status_of(const std::vector<frame> &answer) {
    const auto status = protocol::read_status(protocol::as_bytes(answer.back().payload));
    EXPECT_TRUE(status) << answer.back().payload;
    return status.value_or(protocol::status_message{});
}

inline std::string refusal_of(const frame &got) {
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
        EXPECT_EQ(platform::management_open_with(path, settings).text, "");
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

inline client *leaver = nullptr;

inline int drop_everyone(struct cli *cli, int /*argc*/, char ** /*argv*/) {
    leaver->leave();
    cli->print(cli->print_handle, "into the void\n");
    return 0;
}

#endif
