// SPDX-License-Identifier: Apache-2.0
// One request is on its way at a time; the others wait in line here. The life of a connection: none, greeting (hello
// sent, no welcome yet), ready. Whatever breaks it fails every request that waits, with the reason: asking again is the
// caller's to decide.
#include "link.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <utility>

#include "management_protocol.h"
#include "reach.h"

namespace ravo::client {

namespace {

using clock = std::chrono::steady_clock;

constexpr std::size_t read_size = std::size_t{64} * 1024;
constexpr std::size_t tail_size = 256;

struct request {
    std::string line;
    std::uint8_t view = 0;
    on_reply done;
};

enum class phase { none, greeting, ready };

}  // namespace

struct link {
    link_options options;
    link_state state;
    client::phase phase = phase::none;
    int fd = -1;
    protocol::bytes in;       // received, not handled
    std::size_t in_used = 0;  // bytes of it that were handled
    protocol::bytes out;      // not sent yet
    std::deque<request> waiting;
    bool running = false;  // the first of them is on its way
    std::uint32_t id = 0;  // of the one on its way
    reply answer;          // to it, as far as it came
    clock::time_point limit = clock::time_point::max();
    clock::time_point next_try = clock::time_point::min();
};

void link_delete::operator()(link *l) const {
    if (l->fd >= 0) ::close(l->fd);
    delete l;
}

namespace {

void begin(link &l);

// ---- The end of a connection ----

void fail_waiting(link &l, const std::string &reason) {
    const std::deque<request> failed = std::exchange(l.waiting, {});
    l.running = false;
    l.answer = {};
    for (const request &r : failed) {
        reply answer;
        answer.reason = reason;
        r.done(answer);
    }
}

void lose(link &l, const std::string &reason) {
    if (l.fd >= 0) ::close(l.fd);
    l.fd = -1;
    l.phase = phase::none;
    l.in.clear();
    l.in_used = 0;
    l.out.clear();
    l.limit = clock::time_point::max();
    // A connection that ends while nobody waits is no reason to keep the next one waiting.
    const bool idle = l.state.connected && l.waiting.empty();
    l.next_try = idle ? clock::time_point::min() : clock::now() + l.options.pause;
    l.state.connected = false;
    l.state.reason = l.options.socket + ": " + reason;
    l.state.daemon_pid = 0;
    fail_waiting(l, l.state.reason);
}

// ---- Sending ----

void send_some(link &l) {
    while (l.fd >= 0 && !l.out.empty()) {
        const ssize_t sent = send(l.fd, l.out.data(), l.out.size(), MSG_NOSIGNAL);
        if (sent > 0) {
            l.out.erase(l.out.begin(), l.out.begin() + sent);
            continue;
        }
        // A broken connection shows when it is read from: a refusal may be waiting there.
        if (sent < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) l.out.clear();
        return;
    }
}

void run_next(link &l) {
    if (l.phase != phase::ready || l.running || l.waiting.empty()) return;
    const request &next = l.waiting.front();
    protocol::run_message m;
    m.id = ++l.id;
    m.view = next.view;
    m.line = next.line;
    l.running = true;
    l.answer = {};
    l.out = protocol::run_frame(m);
    l.limit = clock::now() + l.options.patience;
    send_some(l);
}

int peer_of(int fd) {
    ucred peer{};
    socklen_t size = sizeof peer;
    return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 ? static_cast<int>(peer.pid) : 0;
}

void begin(link &l) {
    const fault wrong = reach(l.options.socket, &l.fd);
    if (wrong) {
        lose(l, wrong.text);
        return;
    }
    l.phase = phase::greeting;
    l.limit = clock::now() + l.options.patience;
    l.state.daemon_pid = peer_of(l.fd);
    protocol::hello_message hello;
    hello.privilege = static_cast<std::uint8_t>(l.options.privilege);
    hello.mode = static_cast<std::uint8_t>(l.options.mode);
    l.out = protocol::hello_frame(hello);
    if (!l.options.behalf.empty()) {
        const protocol::bytes behalf = protocol::behalf_frame(l.options.behalf);
        l.out.insert(l.out.end(), behalf.begin(), behalf.end());
    }
    send_some(l);
}

// ---- Frames ----

bool take_welcome(link &l, std::span<const std::uint8_t> payload) {
    const auto m = protocol::read_welcome(payload);
    if (!m || m->version != protocol::version || l.phase != phase::greeting) return false;
    l.phase = phase::ready;
    l.limit = clock::time_point::max();
    l.state.connected = true;
    l.state.reason.clear();
    l.state.daemon_version = m->daemon_version;
    l.state.may_change = m->may_change != 0;
    return true;
}

bool take_status(link &l, std::span<const std::uint8_t> payload) {
    const auto m = protocol::read_status(payload);
    if (!m || !l.running || m->id != l.id) return false;
    l.answer.answered = true;
    l.answer.result = m->result;
    reply answer = std::exchange(l.answer, {});
    const request done = std::move(l.waiting.front());
    l.waiting.pop_front();
    l.running = false;
    l.limit = clock::time_point::max();
    done.done(answer);
    return true;
}

void take_text(link &l, std::string_view text) {
    std::string &kept = l.answer.text;
    const std::size_t room = l.options.longest_text - std::min(kept.size(), l.options.longest_text);
    kept += text.substr(0, room);
    if (text.size() <= room) return;
    l.answer.cut = true;
    l.answer.tail += text.substr(room);
    if (l.answer.tail.size() > tail_size) l.answer.tail.erase(0, l.answer.tail.size() - tail_size);
}

bool take_value(link &l, std::span<const std::uint8_t> payload) {
    auto m = protocol::read_value(payload);
    if (!m) return false;
    const auto key = protocol::as_bytes(m->key);
    l.answer.values.push_back({{key.begin(), key.end()}, std::move(m->text)});
    return true;
}

// Returns false for what is no frame of the protocol.
bool take_frame(link &l, std::uint8_t type, std::span<const std::uint8_t> payload) {
    switch (static_cast<protocol::frame_type>(type)) {
        case protocol::frame_type::welcome:
            return take_welcome(l, payload);
        case protocol::frame_type::status:
            return take_status(l, payload);
        case protocol::frame_type::output:
            take_text(l, protocol::as_text(payload));
            return true;
        case protocol::frame_type::value:
            return take_value(l, payload);
        case protocol::frame_type::record:
            l.answer.records.emplace_back(payload.begin(), payload.end());
            return true;
        case protocol::frame_type::row_key:
            l.answer.row_keys.emplace_back(payload.begin(), payload.end());
            return true;
        case protocol::frame_type::monitor:  // nobody asked for it
            return true;
        case protocol::frame_type::refused: {
            const auto m = protocol::read_refused(payload);
            if (m) lose(l, m->text);
            return m.has_value();
        }
        default:
            return false;
    }
}

void take_frames(link &l) {
    while (l.fd >= 0) {
        const std::span<const std::uint8_t> left = std::span(l.in).subspan(l.in_used);
        const auto head = protocol::read_head(left);
        const bool bad = head && head->length > protocol::max_reply;
        if (!bad && (!head || left.size() < protocol::head_size + head->length)) break;
        // The callback may ask, which may lose the connection and clear the input: what is taken is a copy.
        const protocol::bytes payload(left.begin() + protocol::head_size,
                                      left.begin() + (bad ? protocol::head_size : protocol::head_size + head->length));
        if (!bad) l.in_used += protocol::head_size + head->length;
        if (bad || !take_frame(l, head->type, payload)) {
            lose(l, "what ravod sent is no frame of the management protocol");
            return;
        }
        run_next(l);
    }
    l.in.erase(l.in.begin(), l.in.begin() + static_cast<std::ptrdiff_t>(l.in_used));
    l.in_used = 0;
    if (l.in.empty() && l.in.capacity() > 4 * read_size) l.in.shrink_to_fit();
}

// Reads what has come, a bounded amount a turn. Returns false at the connection's end.
bool receive_some(link &l) {
    const std::size_t before = l.in.size();
    l.in.resize(before + read_size);
    const ssize_t got = recv(l.fd, l.in.data() + before, read_size, 0);
    const int error = errno;
    l.in.resize(before + (got > 0 ? static_cast<std::size_t>(got) : 0));
    if (got > 0) return true;
    return got < 0 && (error == EAGAIN || error == EWOULDBLOCK || error == EINTR);
}

}  // namespace

link_ptr link_make(link_options options) {
    link_ptr l(new link);
    l->options = std::move(options);
    return l;
}

void link_ask(link &l, std::string line, on_reply done, std::uint8_t view) {
    std::string reason;
    if (l.waiting.size() >= l.options.most_waiting)
        reason = l.options.socket + ": too many requests wait for ravod";
    else if (l.phase == phase::none && clock::now() < l.next_try)
        reason = l.state.reason;
    if (!reason.empty()) {
        reply answer;
        answer.reason = reason;
        done(answer);
        return;
    }
    l.waiting.push_back({std::move(line), view, std::move(done)});
    if (l.phase == phase::none) begin(l);
    run_next(l);
}

int link_descriptor(const link &l) {
    return l.fd;
}

short link_wants(const link &l) {
    if (l.fd < 0) return 0;
    return static_cast<short>(l.out.empty() ? POLLIN : POLLIN | POLLOUT);
}

std::chrono::steady_clock::time_point link_deadline(const link &l) {
    return l.limit;
}

void link_attend(link &l) {
    if (l.fd < 0) return;
    send_some(l);
    const bool open = receive_some(l);
    take_frames(l);
    if (l.fd < 0) return;
    if (!open)
        lose(l, "ravod has closed the connection");
    else if (clock::now() >= l.limit)
        lose(l, "ravod does not answer");
}

void link_settle(link &l, std::chrono::milliseconds most) {
    const auto limit = clock::now() + most;
    while (l.fd >= 0 && !l.waiting.empty()) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(limit - clock::now()).count();
        if (left <= 0) {
            lose(l, "ravod does not answer");
            return;
        }
        pollfd wait{l.fd, link_wants(l), 0};
        (void)poll(&wait, 1, static_cast<int>(std::min<long long>(left, 100)));  // a failure shows in what follows
        link_attend(l);
    }
}

const link_state &link_look(const link &l) {
    return l.state;
}

}  // namespace ravo::client
