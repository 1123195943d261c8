// A session reads frames and answers each with output frames and a status. Its client may be anything: bytes come in
// any pieces, may stop in the middle of a frame, may be no frames at all, and what is written may never be read. So:
//
// - the input buffer never holds more than one largest frame; a head that claims more ends the session;
// - a frame that has begun must be complete in time, and so must the hello;
// - what waits for the client is bounded, and it must read something of it now and then;
// - a few requests are served at a time, then the relay has its turn.
//
// A session that breaks is marked and deleted from the event loop, never from within: handlers may be running that
// print to it, and a log listener that writes to it must not log.
#include "management/management_session.h"

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "base/loop.h"
#include "base/owners.h"
#include "cli.h"
#include "cli/command_line.h"
#include "log/log.h"
#include "management_protocol.h"

namespace ravo::platform {

namespace {

struct bufferevent_delete {
    void operator()(struct bufferevent *b) const { bufferevent_free(b); }
};

timeval to_timeval(double seconds) {
    const double whole = std::floor(seconds);
    return {static_cast<time_t>(whole), static_cast<suseconds_t>((seconds - whole) * 1e6)};
}

}  // namespace

struct management_session {
    unsigned number = 0;
    management_peer peer;
    management_rights rights;
    const management_settings *settings = nullptr;
    management_on_end on_end = nullptr;

    std::unique_ptr<struct bufferevent, bufferevent_delete> stream;
    event_ptr again;     // goes on with requests that are waiting, or ends the session
    event_ptr deadline;  // of the hello or of a frame that has begun
    cli::session_ptr line;

    std::string text;               // output of the command that has not been made a frame yet
    std::string end_reason;         // for the log, when dead
    std::string question;           // the running command asks the person
    protocol::run_message request;  // the running command
    std::int32_t page = -1;         // lines of a page, -1: not set
    bool running = false;           // a command's handler may be printing
    bool streaming = false;         // the command of the request goes on
    bool muted = false;             // what it prints is dropped
    bool ending = false;            // ends when everything is written
    bool dead = false;              // ends as soon as the loop has its turn
};

namespace {

// ---- The end ----

// Marks the session; it is deleted from the event loop. reason: for the log, empty when nothing went wrong.
void end_session(management_session &s, std::string reason) {
    if (s.dead) return;
    s.dead = true;
    s.end_reason = std::move(reason);
    event_active(s.again.get(), EV_TIMEOUT, 0);
}

// ---- Output ----

bool send_frame(management_session &s, const protocol::bytes &frame) {
    if (s.dead) return false;
    struct evbuffer *out = bufferevent_get_output(s.stream.get());
    if (evbuffer_get_length(out) + frame.size() > s.settings->unread_output) {
        end_session(s, "it does not read its output, " + std::to_string(evbuffer_get_length(out)) + " bytes wait");
        return false;
    }
    if (bufferevent_write(s.stream.get(), frame.data(), frame.size()) == 0) return true;
    end_session(s, "no memory for its output");
    return false;
}

bool flush_text(management_session &s) {
    bool good = true;
    std::string_view left = s.text;
    while (good && !left.empty()) {
        const std::string_view piece = left.substr(0, protocol::max_output_piece);
        good = send_frame(s, protocol::make_frame(protocol::frame_type::output, piece));
        left.remove_prefix(piece.size());
    }
    s.text.clear();
    return good;
}

// A frame that keeps its place among the text.
bool send_in_order(management_session &s, const protocol::bytes &frame) {
    return flush_text(s) && send_frame(s, frame);
}

// Tells the client why and ends the session. What it has not read yet comes first, as far as it goes without waiting.
void refuse(management_session &s, protocol::refusal reason, const std::string &why) {
    if (send_frame(s, protocol::refused_frame({reason, why}))) management_session_flush(s);
    end_session(s, why);
}

int take_text(management_session &s, std::string_view text) {
    if (s.dead) return -1;
    if (s.muted) return 0;
    if (s.streaming) return send_frame(s, protocol::make_frame(protocol::frame_type::output, text)) ? 0 : -1;
    // Nobody asked for what comes outside of a command: it must not be taken for a command's output.
    if (!s.running) return send_frame(s, protocol::make_frame(protocol::frame_type::monitor, text)) ? 0 : -1;
    s.text += text;
    if (s.text.size() < protocol::max_output_piece) return 0;
    return flush_text(s) ? 0 : -1;
}

int take_payload(management_session &s, protocol::frame_type type, std::span<const std::uint8_t> data) {
    if (s.muted) return 0;
    if (data.size() > protocol::max_reply) {
        end_session(s, "a record of " + std::to_string(data.size()) + " bytes is longer than a frame");
        return -1;
    }
    return send_in_order(s, protocol::make_frame(type, data)) ? 0 : -1;
}

int take_value(management_session &s, std::span<const std::uint8_t> key, std::string_view text) {
    if (s.muted) return 0;
    const std::size_t most = protocol::max_reply - 2;
    if (key.size() > 0xFFFF || key.size() + text.size() > most) return CLI_BUFFER_FULL;
    return send_in_order(s, protocol::value_frame(key, text)) ? 0 : CLI_BUFFER_FULL;
}

void take_monitor_line(management_session &s, std::string_view text) {
    text = text.substr(0, protocol::max_output_piece);
    (void)send_frame(s, protocol::make_frame(protocol::frame_type::monitor, text));  // a failure ends the session
}

// True: go on; false: the person is asked first.
bool confirm(management_session &s, std::string_view question) {
    const unsigned flags = s.request.flags;
    if ((flags & protocol::run_interactive) == 0 || (flags & protocol::run_confirmed) != 0) return true;
    s.question = question;
    return false;
}

void end_stream(management_session &s, int result);

cli::session_output output_of(management_session *s) {
    cli::session_output output;
    output.text = [s](std::string_view text) { return take_text(*s, text); };
    output.value = [s](std::span<const std::uint8_t> key, std::string_view text) { return take_value(*s, key, text); };
    output.record = [s](std::span<const std::uint8_t> record) {
        return take_payload(*s, protocol::frame_type::record, record);
    };
    output.row_key = [s](std::span<const std::uint8_t> key) {
        return take_payload(*s, protocol::frame_type::row_key, key);
    };
    output.monitor = [s](std::string_view text) { take_monitor_line(*s, text); };
    output.terminal_length = [s](int lines) { s->page = lines; };
    output.confirm = [s](std::string_view question) { return confirm(*s, question); };
    output.stream_end = [s](int result) { end_stream(*s, result); };
    return output;
}

void send_status(management_session &s, std::uint32_t id, int result) {
    log_settle();  // who has the answer finds in the log what there was to say
    protocol::status_message status;
    status.id = id;
    status.result = result;
    status.mode = static_cast<std::uint8_t>(cli::session_mode(*s.line));
    status.page = s.page;
    status.prompt = cli::session_prompt(*s.line);
    status.question = std::move(s.question);
    s.question.clear();
    if (!status.question.empty()) status.flags |= protocol::status_question;
    if (cli::session_closed(*s.line)) status.flags |= protocol::status_closed;
    if (!send_in_order(s, protocol::status_frame(status))) return;
    if ((status.flags & protocol::status_closed) == 0) return;
    s.ending = true;
    bufferevent_disable(s.stream.get(), EV_READ);
}

// A command that went on is over.
void end_stream(management_session &s, int result) {
    if (!s.streaming) return;
    s.streaming = false;
    send_status(s, s.request.id, result);
}

// ---- Requests ----

// Runs the line of s.request with its output going to the client. Returns its result.
int run_line(management_session &s) {
    s.running = true;
    cli::session_set_view(*s.line, s.request.view, s.request.show_all);
    const int result = cli::session_run(*s.line, s.request.line);
    s.running = false;
    return result;
}

bool has_control_characters(std::string_view line) {
    return std::any_of(line.begin(), line.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return (byte < ' ' && byte != '\t') || byte == 0x7F;
    });
}

// Judges a line before the command library sees it. Returns an empty string, or what to print.
std::string fault_of_line(std::string_view line) {
    if (has_control_characters(line)) return "% Control characters are not allowed in a command line.\n";
    return {};
}

std::string_view without_line_end(std::string_view line) {
    if (line.ends_with('\n')) line.remove_suffix(1);
    if (line.ends_with('\r')) line.remove_suffix(1);
    return line;
}

bool serve_run(management_session &s, std::span<const std::uint8_t> payload) {
    std::optional<protocol::run_message> request = protocol::read_run(payload);
    if (!request) return false;
    s.request = std::move(*request);
    s.request.line = without_line_end(s.request.line);
    s.text = fault_of_line(s.request.line);
    const int result = s.text.empty() ? run_line(s) : 1;
    s.streaming = cli::session_streaming(*s.line);
    if (!s.streaming)
        send_status(s, s.request.id, result);
    else
        (void)send_in_order(s, protocol::stream_frame());  // a failure ends the session
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

// Brings a new session to the mode it asked for. Returns whether it got there.
bool enter_mode(management_session &s, int mode) {
    if (mode == CLI_MODE_EXEC) return true;
    if (mode != CLI_MODE_CONFIGURATION || !s.rights.may_change) return false;
    s.muted = true;
    s.request.line = "configure terminal";
    const int result = run_line(s);
    s.muted = false;
    return result == 0 && cli::session_mode(*s.line) == mode;
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
    if (!enter_mode(s, hello->mode)) {
        refuse(s, protocol::refusal::not_permitted,
               "user " + s.peer.user + " cannot start in mode " + std::to_string(hello->mode));
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
    return true;
}

// Serves one whole frame. Returns false when it breaks the protocol.
bool serve_frame(management_session &s, std::uint8_t type, std::span<const std::uint8_t> payload) {
    // A session begins with one hello; nothing else may come before it, and no other after it.
    if (s.line == nullptr)
        return type == static_cast<std::uint8_t>(protocol::frame_type::hello) && serve_hello(s, payload);
    // Whatever the client wants next, a command that goes on is over then.
    if (s.streaming) end_stream(s, cli::session_interrupt(*s.line));
    switch (static_cast<protocol::frame_type>(type)) {
        case protocol::frame_type::interrupt:
            return payload.empty();
        case protocol::frame_type::run:
            return serve_run(s, payload);
        case protocol::frame_type::help:
            return serve_help(s, payload);
        case protocol::frame_type::complete:
            return serve_complete(s, payload);
        default:
            return false;
    }
}

enum class progress { served, partial, nothing, broken };

// Serves the first frame of the input when all of it is there.
progress serve_next(management_session &s) {
    struct evbuffer *in = bufferevent_get_input(s.stream.get());
    const std::size_t waiting = evbuffer_get_length(in);
    if (waiting == 0) return progress::nothing;
    std::uint8_t head_bytes[protocol::head_size];
    const ev_ssize_t got = evbuffer_copyout(in, head_bytes, sizeof(head_bytes));
    if (got < 0) return progress::broken;
    const bool first = s.line == nullptr;
    // Junk is told from a frame by its first byte already.
    if (first != (head_bytes[0] == static_cast<std::uint8_t>(protocol::frame_type::hello))) return progress::broken;
    const auto head = protocol::read_head({head_bytes, static_cast<std::size_t>(got)});
    if (!head) return progress::partial;
    if (head->length > protocol::max_request) return progress::broken;
    const std::size_t whole = protocol::head_size + head->length;
    if (waiting < whole) return progress::partial;
    protocol::bytes frame(whole);
    if (evbuffer_remove(in, frame.data(), whole) != static_cast<int>(whole)) return progress::broken;
    const bool good = serve_frame(s, head->type, std::span(frame).subspan(protocol::head_size));
    return good ? progress::served : progress::broken;
}

void start_deadline(management_session &s) {
    if (evtimer_pending(s.deadline.get(), nullptr) != 0) return;  // not put off by bytes that drip in
    const timeval time = to_timeval(s.settings->frame_seconds);
    evtimer_add(s.deadline.get(), &time);
}

void serve_requests(management_session &s) {
    for (int i = 0; i < s.settings->requests_a_turn; ++i) {
        if (s.dead || s.ending) return;
        switch (serve_next(s)) {
            case progress::served:
                evtimer_del(s.deadline.get());
                break;
            case progress::partial:
                start_deadline(s);
                return;
            case progress::nothing:
                return;
            case progress::broken:
                refuse(s, protocol::refusal::malformed, "what it sent is no frame of the management protocol");
                return;
        }
    }
    const timeval next_turn{};
    evtimer_add(s.again.get(), &next_turn);
}

// ---- Events ----

void on_again(evutil_socket_t /*fd*/, short /*what*/, void *arg) {
    auto *s = static_cast<management_session *>(arg);
    if (!s->dead) {
        serve_requests(*s);
        return;
    }
    if (s->end_reason.empty()) {
        log_line(log_level_trace, "management: session %u of user %s ends", s->number, s->peer.user.c_str());
    } else {
        log_line(log_level_warning, "management: session %u of user %s (%u) is closed: %s", s->number,
                 s->peer.user.c_str(), s->peer.uid, s->end_reason.c_str());
    }
    s->on_end(s);
}

void on_deadline(evutil_socket_t /*fd*/, short /*what*/, void *arg) {
    auto *s = static_cast<management_session *>(arg);
    refuse(*s, protocol::refusal::too_slow,
           s->line == nullptr ? "its hello did not come in time" : "it began a frame and did not finish it in time");
}

void on_readable(struct bufferevent * /*stream*/, void *arg) {
    auto *s = static_cast<management_session *>(arg);
    // While a turn is due anyway, more input waits for it.
    if (evtimer_pending(s->again.get(), nullptr) == 0) serve_requests(*s);
}

void on_written(struct bufferevent * /*stream*/, void *arg) {
    auto *s = static_cast<management_session *>(arg);
    if (s->ending) end_session(*s, {});
}

void on_stream_event(struct bufferevent * /*stream*/, short what, void *arg) {
    auto *s = static_cast<management_session *>(arg);
    const bool stalled = (what & BEV_EVENT_TIMEOUT) != 0;
    end_session(*s, stalled ? "it does not read its output" : "");
}

bool make_events(management_session &s, int fd) {
    s.stream.reset(bufferevent_socket_new(loop_base(), fd, BEV_OPT_CLOSE_ON_FREE));
    if (s.stream == nullptr) {
        close(fd);
        return false;
    }
    s.again.reset(evtimer_new(loop_base(), on_again, &s));
    s.deadline.reset(evtimer_new(loop_base(), on_deadline, &s));
    if (s.again == nullptr || s.deadline == nullptr) return false;
    const timeval stall = to_timeval(s.settings->stall_seconds);
    bufferevent_set_timeouts(s.stream.get(), nullptr, &stall);
    bufferevent_setwatermark(s.stream.get(), EV_READ, 0, protocol::head_size + protocol::max_request);
    bufferevent_setcb(s.stream.get(), on_readable, on_written, on_stream_event, &s);
    start_deadline(s);  // for the hello
    return bufferevent_enable(s.stream.get(), EV_READ | EV_WRITE) == 0;
}

}  // namespace

void management_session_delete::operator()(management_session *s) const {
    s->dead = true;  // whatever the command library still prints while it goes is dropped
    delete s;
}

management_session_ptr management_session_open(int fd, unsigned number, const management_peer &peer,
                                               const management_rights &rights, const management_settings &settings,
                                               management_on_end on_end) {
    management_session_ptr s(new management_session);
    s->number = number;
    s->peer = peer;
    s->rights = rights;
    s->settings = &settings;
    s->on_end = on_end;
    if (!make_events(*s, fd)) return nullptr;
    return s;
}

void management_session_flush(management_session &s) {
    struct evbuffer *out = bufferevent_get_output(s.stream.get());
    // The buffer's front is the bufferevent's own while it is enabled for writing.
    bufferevent_disable(s.stream.get(), EV_WRITE);
    evbuffer_unfreeze(out, /*at_front=*/1);
    while (evbuffer_get_length(out) > 0 && evbuffer_write(out, bufferevent_getfd(s.stream.get())) > 0) continue;
    evbuffer_freeze(out, /*at_front=*/1);
}

}  // namespace ravo::platform
