// SPDX-License-Identifier: Apache-2.0
// The socket is non-blocking. A request is written and its answer read in one loop, so that neither side ever waits for
// the other to read first. Frames are taken from the input as they become whole; the request's own status ends the
// loop.
//
// When the daemon refuses, its reason may be waiting behind a connection that is closed already: a failing write is
// therefore no verdict, what can still be read is.
#include "client.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <optional>

#include "management_protocol.h"
#include "reach.h"

namespace ravo::client {

struct connection {
    int fd = -1;
    std::string path;
    protocol::bytes in;       // received, not handled
    std::size_t in_used = 0;  // bytes of it that were handled
    session_state state;
    std::uint32_t next_id = 1;
};

void connection_delete::operator()(connection *c) const {
    if (c->fd >= 0) ::close(c->fd);
    delete c;
}

namespace {

using std::chrono::steady_clock;

constexpr std::size_t read_size = std::size_t{64} * 1024;
constexpr std::size_t longest_sent = protocol::max_request - 256;  // bytes of a line; its frame has a head too
constexpr int slice_ms = 200;                                      // how often a wait looks whether it was cancelled

// What a frame meant for whoever waits.
enum class event { other, welcome, status, refused, malformed };

struct exchange {
    const handlers *to = nullptr;
    std::vector<help_row> *help_rows = nullptr;
    std::vector<std::string> *words = nullptr;
    std::optional<protocol::status_message> status = {};
    std::string refusal = {};
    bool streaming = false;    // the command goes on
    bool interrupted = false;  // and was told to end
};

void lose(connection &c) {
    if (c.fd >= 0) ::close(c.fd);
    c.fd = -1;
}

// ---- Frames ----

event take_welcome(connection &c, std::span<const std::uint8_t> payload) {
    const auto m = protocol::read_welcome(payload);
    if (!m || m->version != protocol::version) return event::malformed;
    c.state = {m->privilege, m->may_change != 0, m->mode, m->prompt, /*page=*/-1, /*closed=*/false, m->daemon_version};
    return event::welcome;
}

event take_refused(std::span<const std::uint8_t> payload, exchange &x) {
    const auto m = protocol::read_refused(payload);
    if (!m) return event::malformed;
    x.refusal = m->text;
    return event::refused;
}

event take_status(connection &c, std::span<const std::uint8_t> payload, exchange &x) {
    auto m = protocol::read_status(payload);
    if (!m) return event::malformed;
    c.state.mode = m->mode;
    c.state.prompt = m->prompt;
    c.state.page = m->page;
    c.state.closed = (m->flags & protocol::status_closed) != 0;
    x.status = std::move(*m);
    return event::status;
}

event take_value(std::span<const std::uint8_t> payload, const handlers &to) {
    const auto m = protocol::read_value(payload);
    if (!m) return event::malformed;
    if (to.value) to.value(protocol::as_bytes(m->key), m->text);
    return event::other;
}

event take_help(std::span<const std::uint8_t> payload, exchange &x) {
    auto m = protocol::read_help(payload);
    if (!m) return event::malformed;
    if (x.help_rows != nullptr) x.help_rows->push_back({std::move(m->word), std::move(m->text)});
    return event::other;
}

event take_frame(connection &c, std::uint8_t type, std::span<const std::uint8_t> payload, exchange &x) {
    const std::string_view text = protocol::as_text(payload);
    switch (static_cast<protocol::frame_type>(type)) {
        case protocol::frame_type::welcome:
            return take_welcome(c, payload);
        case protocol::frame_type::refused:
            return take_refused(payload, x);
        case protocol::frame_type::status:
            return take_status(c, payload, x);
        case protocol::frame_type::value:
            return take_value(payload, *x.to);
        case protocol::frame_type::help_row:
            return take_help(payload, x);
        case protocol::frame_type::output:
            if (x.to->text) x.to->text(text);
            return event::other;
        case protocol::frame_type::record:
            if (x.to->record) x.to->record(payload);
            return event::other;
        case protocol::frame_type::row_key:
            if (x.to->row_key) x.to->row_key(payload);
            return event::other;
        case protocol::frame_type::monitor:
            if (x.to->monitor) x.to->monitor(text);
            return event::other;
        case protocol::frame_type::stream:
            x.streaming = true;
            if (x.to->streaming) x.to->streaming();
            return event::other;
        case protocol::frame_type::completion:
            if (x.words != nullptr) x.words->emplace_back(text);
            return event::other;
        default:
            return event::malformed;
    }
}

// Handles frames of the input until one that somebody waits for, or none is whole any more (other).
event take_frames(connection &c, exchange &x) {
    event seen = event::other;
    while (seen == event::other) {
        const std::span<const std::uint8_t> left = std::span(c.in).subspan(c.in_used);
        const auto head = protocol::read_head(left);
        if (!head) break;
        if (head->length > protocol::max_reply) return event::malformed;
        if (left.size() < protocol::head_size + head->length) break;
        c.in_used += protocol::head_size + head->length;
        seen = take_frame(c, head->type, left.subspan(protocol::head_size, head->length), x);
    }
    if (c.in_used == c.in.size()) {
        c.in.clear();
        c.in_used = 0;
    }
    return seen;
}

// ---- The socket ----

enum class receive { some, nothing, end };

receive receive_some(connection &c) {
    c.in.erase(c.in.begin(), c.in.begin() + static_cast<std::ptrdiff_t>(c.in_used));
    c.in_used = 0;
    const std::size_t before = c.in.size();
    c.in.resize(before + read_size);
    const ssize_t got = recv(c.fd, c.in.data() + before, read_size, 0);
    const int error = errno;
    c.in.resize(before + (got > 0 ? static_cast<std::size_t>(got) : 0));
    if (got > 0) return receive::some;
    if (got < 0 && (error == EAGAIN || error == EWOULDBLOCK || error == EINTR)) return receive::nothing;
    return receive::end;
}

// Sends what goes without waiting and takes it off. A broken connection shows when it is read from.
void send_some(connection &c, std::span<const std::uint8_t> *out) {
    const ssize_t sent = send(c.fd, out->data(), out->size(), MSG_NOSIGNAL);
    if (sent > 0) {
        *out = out->subspan(static_cast<std::size_t>(sent));
    } else if (sent < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
        *out = {};
    }
}

answer lost(connection &c, const std::string &reason) {
    lose(c);
    return {outcome::lost, 1, {}, c.path + ": " + reason};
}

answer answer_of(connection &c, event seen, const exchange &x) {
    if (seen == event::refused) return lost(c, x.refusal);
    if (seen == event::malformed) return lost(c, "what ravod sent is no frame of the management protocol");
    answer a;
    a.outcome = outcome::answered;
    if (x.status) {
        a.result = x.status->result;
        a.question = x.status->question;
    }
    return a;
}

// Sends a request and handles what comes until the event that is waited for. limit: the latest time, if any.
answer converse(connection &c, const protocol::bytes &request, exchange &x, event wanted,
                std::optional<steady_clock::time_point> limit) {
    static const protocol::bytes interrupt = protocol::interrupt_frame();
    std::span<const std::uint8_t> out(request);
    for (;;) {
        const event seen = take_frames(c, x);
        if (seen == wanted || seen == event::refused || seen == event::malformed) return answer_of(c, seen, x);
        if (seen != event::other) return answer_of(c, event::malformed, x);
        if (x.to->cancelled && x.to->cancelled()) {
            // A second time it is meant: a daemon that does not end the command either is given up.
            if (!x.streaming || x.interrupted) {
                lose(c);
                return {outcome::cancelled, 1, {}, {}};
            }
            x.interrupted = true;
            out = interrupt;  // the request itself is out: the daemon answered it with a stream
        }
        if (limit && steady_clock::now() >= *limit) return lost(c, "ravod does not answer");
        pollfd wait{c.fd, static_cast<short>(out.empty() ? POLLIN : POLLIN | POLLOUT), 0};
        if (poll(&wait, 1, limit || x.to->cancelled ? slice_ms : -1) <= 0) continue;
        if ((wait.revents & POLLOUT) != 0 && !out.empty()) send_some(c, &out);
        if ((wait.revents & ~POLLOUT) != 0 && receive_some(c) == receive::end)
            return lost(c, "ravod has closed the connection");
    }
}

answer request_status(connection &c, const protocol::bytes &request, std::uint32_t id, exchange &x) {
    if (c.fd < 0) return {outcome::lost, 1, {}, c.path + ": not connected"};
    answer a = converse(c, request, x, event::status, std::nullopt);
    if (a.outcome != outcome::answered) return a;
    if (x.status->id != id) return lost(c, "ravod answered another request");
    // Lines of the log may have come with the status; the descriptor does not become readable for them again.
    exchange rest{x.to};
    if (take_frames(c, rest) != event::other) lose(c);  // the next request tells
    return a;
}

}  // namespace

fault open(const open_options &options, connection_ptr *opened) {
    opened->reset();
    connection_ptr c(new connection);
    c->path = options.socket;
    if (const fault wrong = reach(options.socket, &c->fd)) return {options.socket + ": " + wrong.text};
    const auto limit = steady_clock::now() + std::chrono::seconds(options.timeout_seconds);
    const protocol::bytes hello = protocol::hello_frame(
        {protocol::version, static_cast<std::uint8_t>(options.privilege), static_cast<std::uint8_t>(options.mode)});
    const handlers nobody;
    exchange x{&nobody};
    const answer a = converse(*c, hello, x, event::welcome, limit);
    if (a.outcome != outcome::answered) return {a.reason};
    *opened = std::move(c);
    return {};
}

const session_state &state(const connection &c) {
    return c.state;
}

answer run(connection &c, const command &what, const handlers &to) {
    exchange x{&to};
    protocol::run_message m;
    m.id = c.next_id++;
    m.view = what.view;
    m.show_all = what.show_all ? 1 : 0;
    if (what.interactive) m.flags |= protocol::run_interactive;
    if (what.confirmed) m.flags |= protocol::run_confirmed;
    m.line = what.line;
    // The daemon judges a long line; one that is too long for a frame cannot get there.
    if (m.line.size() > longest_sent) m.line.resize(longest_sent);
    return request_status(c, protocol::run_frame(m), m.id, x);
}

answer help(connection &c, std::string_view line, std::vector<help_row> *rows, const handlers &to) {
    exchange x{&to, rows};
    const std::uint32_t id = c.next_id++;
    line = line.substr(0, longest_sent);
    return request_status(c, protocol::ask_frame(protocol::frame_type::help, {id, std::string(line)}), id, x);
}

answer complete(connection &c, std::string_view line, std::vector<std::string> *words, const handlers &to) {
    exchange x{&to, nullptr, words};
    const std::uint32_t id = c.next_id++;
    line = line.substr(0, longest_sent);
    return request_status(c, protocol::ask_frame(protocol::frame_type::complete, {id, std::string(line)}), id, x);
}

int descriptor(const connection &c) {
    return c.fd;
}

fault attend(connection &c, const handlers &to) {
    if (c.fd < 0) return {c.path + ": not connected"};
    exchange x{&to};
    receive got = receive::some;
    while (got == receive::some) {
        got = receive_some(c);
        const event seen = take_frames(c, x);
        // Nothing was asked, so nothing but lines of the log may come.
        if (seen == event::refused) return {lost(c, x.refusal).reason};
        if (seen != event::other) return {answer_of(c, event::malformed, x).reason};
    }
    if (got == receive::nothing) return {};
    return {lost(c, "ravod has closed the connection").reason};
}

}  // namespace ravo::client
