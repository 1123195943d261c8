// SPDX-License-Identifier: Apache-2.0
// What a client asks for. A command runs in turns, and the next request waits until it is done; whatever else is asked
// takes one turn.
#include <event2/buffer.h>

#include <algorithm>
#include <optional>
#include <utility>

#include "cli.h"
#include "cli/command_row.h"
#include "log/log.h"
#include "management/management_state.h"

namespace ravo::platform {

namespace {

bool has_control_characters(std::string_view line) {
    return std::any_of(line.begin(), line.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return (byte < ' ' && byte != '\t') || byte == 0x7F;
    });
}

// Judges a line before the command library sees it. The fault, if any: what to print.
fault fault_of_line(std::string_view line) {
    if (has_control_characters(line)) return {"% Control characters are not allowed in a command line.\n"};
    return {};
}

std::string_view without_line_end(std::string_view line) {
    if (line.ends_with('\n')) line.remove_suffix(1);
    if (line.ends_with('\r')) line.remove_suffix(1);
    return line;
}

// The request's command has ended, or goes on until it is interrupted.
void finish_run(management_session &s, int result) {
    s.streaming = cli::session_streaming(*s.line);
    if (!s.streaming)
        send_status(s, s.request.id, result);
    else
        (void)send_in_order(s, protocol::stream_frame());  // a failure ends the session
}

// Goes on with the running command.
void go_on(management_session &s, std::chrono::microseconds slice) {
    int result = 0;
    s.running = true;
    const bool done = cli::session_turn(*s.line, slice, &result);
    s.running = false;
    if (done)
        finish_run(s, result);
    else
        (void)flush_text(s);  // what there is of its output; a failure ends the session
}

bool serve_run(management_session &s, std::span<const std::uint8_t> payload, std::chrono::microseconds slice) {
    std::optional<protocol::run_message> request = protocol::read_run(payload);
    if (!request) return false;
    s.request = std::move(*request);
    s.request.line = without_line_end(s.request.line);
    s.text = fault_of_line(s.request.line).text;
    if (!s.text.empty()) {
        finish_run(s, 1);
        return true;
    }
    cli::session_set_view(*s.line, s.request.view, s.request.show_all);
    cli::session_set_exact(*s.line, (s.request.flags & protocol::run_exact) != 0);
    cli::session_begin(*s.line, s.request.line);
    go_on(s, slice);
    return true;
}

bool serve_help(management_session &s, std::span<const std::uint8_t> payload) {
    const std::optional<protocol::ask_message> ask = protocol::read_ask(payload);
    if (!ask) return false;
    const bool good = ask->line.size() <= protocol::max_command_line && !has_control_characters(ask->line);
    if (good) {
        for (const cli::help_row &row : cli::session_help(*s.line, ask->line))
            if (!send_frame(s, protocol::help_frame({row.word, row.text}))) return true;
    }
    send_status(s, ask->id, good ? 0 : 1);
    return true;
}

bool serve_complete(management_session &s, std::span<const std::uint8_t> payload) {
    const std::optional<protocol::ask_message> ask = protocol::read_ask(payload);
    if (!ask) return false;
    const bool good = ask->line.size() <= protocol::max_command_line && !has_control_characters(ask->line);
    if (good) {
        for (const std::string &word : cli::session_complete(*s.line, ask->line))
            if (!send_frame(s, protocol::make_frame(protocol::frame_type::completion, word))) return true;
    }
    send_status(s, ask->id, good ? 0 : 1);
    return true;
}

// Brings a new session to the mode it asked for. The fault, if any: why it cannot get there.
fault enter_mode(management_session &s, int mode) {
    if (mode == CLI_MODE_EXEC) return {};
    const std::string who = "user " + s.peer.user + " cannot start in mode " + std::to_string(mode);
    if (mode != CLI_MODE_CONFIGURATION) return {who + ": only modes 4 and 5 are started in"};
    if (!s.rights.may_change) return {who + ", which is for those who may change something"};
    s.muted = true;
    (void)cli::session_run(*s.line, "configure terminal");  // where it led is looked at
    s.muted = false;
    if (cli::session_mode(*s.line) == mode) return {};
    return {who + " with privilege " + std::to_string(cli::session_privilege(*s.line)) + ": it takes privilege " +
            std::to_string(cli::operator_privilege)};
}

bool serve_hello(management_session &s, std::span<const std::uint8_t> payload) {
    const std::optional<protocol::hello_message> hello = protocol::read_hello(payload);
    if (!hello || hello->privilege < 1) return false;
    if (hello->version != protocol::version) {
        refuse(s, protocol::refusal::other_version,
               "this ravod speaks version " + std::to_string(protocol::version) +
                   " of the management protocol, not version " + std::to_string(hello->version));
        return true;
    }
    const int privilege = std::min<int>(hello->privilege, s.rights.privilege);
    const cli::audience who = s.rights.may_change ? cli::audience::operators : cli::audience::viewers;
    s.line = cli::session_open(output_of(&s), privilege, s.peer.user, who);
    const fault no_way = enter_mode(s, hello->mode);
    if (no_way) {
        refuse(s, protocol::refusal::not_permitted, no_way.text);
        return true;
    }
    protocol::welcome_message welcome;
    welcome.privilege = static_cast<std::uint8_t>(privilege);
    welcome.may_change = s.rights.may_change ? 1 : 0;
    welcome.mode = static_cast<std::uint8_t>(cli::session_mode(*s.line));
    welcome.prompt = cli::session_prompt(*s.line);
    welcome.daemon_version = RAVO_VERSION;
    (void)send_frame(s, protocol::welcome_frame(welcome));  // a failure ends the session
    log_line(log_level_trace, "management: session %u of user %s begins with privilege %d", s.number,
             s.peer.user.c_str(), privilege);
    log_line(log_level_warning, "audit: user %s, session %u: opened by process %d on terminal %s with privilege %d",
             s.peer.user.c_str(), s.number, s.peer.pid, s.peer.terminal.c_str(), privilege);
    return true;
}

bool serve_behalf(management_session &s, std::span<const std::uint8_t> payload) {
    std::optional<std::string> name = protocol::read_behalf(payload);
    if (!name) return false;
    s.behalf = std::move(*name);
    return true;
}

// Serves one whole frame. Returns false when it breaks the protocol.
bool serve_frame(management_session &s, std::uint8_t type, std::span<const std::uint8_t> payload,
                 std::chrono::microseconds slice) {
    // A session begins with one hello; nothing else may come before it, and no other after it.
    if (s.line == nullptr)
        return type == static_cast<std::uint8_t>(protocol::frame_type::hello) && serve_hello(s, payload);
    // Whatever the client wants next, a command that goes on is over then.
    if (s.streaming) {
        const int result = cli::session_interrupt(*s.line);
        s.streaming = false;
        send_status(s, s.request.id, result);
    }
    switch (static_cast<protocol::frame_type>(type)) {
        case protocol::frame_type::interrupt:
            return payload.empty();
        case protocol::frame_type::run:
            return serve_run(s, payload, slice);
        case protocol::frame_type::help:
            return serve_help(s, payload);
        case protocol::frame_type::complete:
            return serve_complete(s, payload);
        case protocol::frame_type::behalf:
            return serve_behalf(s, payload);
        default:
            return false;
    }
}

// The head of the first frame of the input.
struct waiting_frame {
    progress how = progress::nothing;  // served: all of the frame is there
    protocol::frame_head head{};
};

waiting_frame look_at_input(const management_session &s) {
    struct evbuffer *in = bufferevent_get_input(s.stream.get());
    const std::size_t waiting = evbuffer_get_length(in);
    if (waiting == 0) return {};
    std::uint8_t head_bytes[protocol::head_size];
    const ev_ssize_t got = evbuffer_copyout(in, head_bytes, sizeof(head_bytes));
    if (got < 0) return {progress::broken};
    const bool first = s.line == nullptr;
    // What is no frame shows that already in its first byte.
    if (first != (head_bytes[0] == static_cast<std::uint8_t>(protocol::frame_type::hello))) return {progress::broken};
    const auto head = protocol::read_head({head_bytes, static_cast<std::size_t>(got)});
    if (!head) return {progress::partial};
    if (head->length > protocol::max_request) return {progress::broken};
    if (waiting < protocol::head_size + head->length) return {progress::partial};
    return {progress::served, *head};
}

}  // namespace

progress serve_turn(management_session &s, std::chrono::microseconds slice) {
    if (s.line != nullptr && cli::session_busy(*s.line)) {
        go_on(s, slice);
        return progress::served;
    }
    const waiting_frame next = look_at_input(s);
    if (next.how != progress::served) return next.how;
    protocol::bytes frame(protocol::head_size + next.head.length);
    struct evbuffer *in = bufferevent_get_input(s.stream.get());
    if (evbuffer_remove(in, frame.data(), frame.size()) != static_cast<int>(frame.size())) return progress::broken;
    const bool good = serve_frame(s, next.head.type, std::span(frame).subspan(protocol::head_size), slice);
    return good ? progress::served : progress::broken;
}

void serve_interrupt(management_session &s) {
    if (s.line == nullptr || !cli::session_busy(*s.line)) return;
    const waiting_frame next = look_at_input(s);
    if (next.how != progress::served || next.head.type != static_cast<std::uint8_t>(protocol::frame_type::interrupt))
        return;
    cli::session_cancel(*s.line);
    send_status(s, s.request.id, 1);  // the frame itself is served when its turn comes
}

}  // namespace ravo::platform
