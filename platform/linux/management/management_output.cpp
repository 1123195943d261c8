// SPDX-License-Identifier: Apache-2.0
// What a session sends to its client: frames, in the order in which they were made. What waits for a client is bounded:
// commands that print much wait for it, others end the session.
#include <event2/buffer.h>
#include <event2/event.h>

#include <utility>

#include "base/text.h"
#include "log/log.h"
#include "management/management_state.h"

namespace ravo::platform {

// ---- The end ----

namespace {

void mark_dead(management_session &s) {
    s.dead = true;
    event_active(s.ended.get(), EV_TIMEOUT, 0);
}

}  // namespace

void end_session(management_session &s, std::string reason) {
    if (s.dead) return;
    s.end_reason = std::move(reason);
    mark_dead(s);
}

void end_session_for_memory(management_session &s) {
    if (s.dead) return;
    s.out_of_memory = true;
    mark_dead(s);
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

bool is_full(const management_session &s) {
    return evbuffer_get_length(bufferevent_get_output(s.stream.get())) > s.settings->waiting_output;
}

bool send_in_order(management_session &s, const protocol::bytes &frame) {
    return flush_text(s) && send_frame(s, frame);
}

void refuse(management_session &s, protocol::refusal reason, const std::string &why) {
    if (send_frame(s, protocol::refused_frame({reason, why}))) management_session_flush(s);
    end_session(s, why);
}

namespace {

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

// What was changed, by whom. A command that waits for the person's answer has not done anything yet.
void note_change(const management_session &s, std::string_view place, std::string_view line, int result) {
    constexpr std::size_t longest = 512;
    if (!s.question.empty()) return;
    const std::string before = place.empty() ? std::string() : std::string(place) + ": ";
    const std::string text = printable_text(line, longest);
    const std::string how = result == 0 ? "done" : "refused (" + std::to_string(result) + ")";
    const std::string whom = s.behalf.empty() ? std::string() : " for " + s.behalf;
    log_line(log_level_start, "audit: user %s%s, session %u: %s%s: %s", s.peer.user.c_str(), whom.c_str(), s.number,
             before.c_str(), text.c_str(), how.c_str());
}

// A command that went on is over.
void end_stream(management_session &s, int result) {
    if (!s.streaming) return;
    s.streaming = false;
    send_status(s, s.request.id, result);
}

}  // namespace

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
    output.changed = [s](std::string_view place, std::string_view line, int result) {
        note_change(*s, place, line, result);
    };
    output.terminal_length = [s](int lines) { s->page = lines; };
    output.full = [s] { return is_full(*s); };
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

}  // namespace ravo::platform
