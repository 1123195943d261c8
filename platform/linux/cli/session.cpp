// SPDX-License-Identifier: Apache-2.0
// Sessions: what they are, what their handlers print with, and lines that run to their end, in turns, or go on until
// they are interrupted.
#include "cli/session.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <utility>

#include "cli/format.h"
#include "cli/turns.h"
#include "log/log.h"

namespace ravo::cli {

namespace {

constexpr std::size_t history_limit = 100;
constexpr std::size_t remembered_line_limit = 4096;  // nobody looks for longer ones in a history
constexpr std::size_t largest_piece = 4096;          // of output between two looks at the clock

void deliver(session &s, std::string_view text) {
    if (!s.gone && s.output.text && s.output.text(text) < 0) s.gone = true;
}

// The size of the next piece of a text that is delivered at once: whole lines, as far as that goes.
std::size_t piece_size(std::string_view text) {
    if (text.size() <= largest_piece) return text.size();
    const std::size_t end = text.rfind('\n', largest_piece - 1);
    return end == std::string_view::npos ? largest_piece : end + 1;
}

// ---- What handlers print with ----

// Between two pieces of output a command that may be cut lets others have their turn, and waits for a reader who has
// not taken what there is.
void rest(const session &s) {
    turns_pause_if_due();
    while (!s.gone && s.output.full && s.output.full() && turns_pause()) continue;
}

__attribute__((format(printf, 2, 3))) int print_text(void *handle, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const std::string text = format_text(format, arguments);
    va_end(arguments);
    session &s = *static_cast<print_target *>(handle)->owner;
    return emit(s, text) < 0 ? -1 : static_cast<int>(text.size());
}

__attribute__((format(printf, 4, 5))) int print_view(void *target, const void *key, std::size_t key_length,
                                                     const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const std::string text = format_text(format, arguments);
    va_end(arguments);
    const auto *to = static_cast<const print_target *>(target);
    if (!to->values) {
        (void)emit(*to->owner, text);  // a session that is gone is noticed where the line ends
        return 0;
    }
    const auto &value = to->owner->output.value;
    const std::span<const std::uint8_t> bytes(static_cast<const std::uint8_t *>(key), key == nullptr ? 0 : key_length);
    return value ? value(bytes, text) : 0;
}

void remember(session &s, std::string_view line) {
    const std::string_view text = trim(line);
    if (text.empty() || text.front() == '!' || text.size() > remembered_line_limit) return;
    s.history.emplace_back(text);
    if (s.history.size() > history_limit) s.history.pop_front();
}

}  // namespace

session_ptr session_open(session_output output, int privilege, std::string user, audience who) {
    session_ptr out(new session);
    out->output = std::move(output);
    out->text_target = {out.get(), false};
    out->value_target = {out.get(), true};
    out->granted = std::clamp(privilege, 1, program_privilege);
    out->privilege = out->granted;
    out->user = std::move(user);
    out->who = who;
    return out;
}

session_ptr session_capture(std::string *text, int privilege, std::string user) {
    session_output output;
    output.text = [text](std::string_view piece) {
        text->append(piece);
        return 0;
    };
    return session_open(std::move(output), privilege, std::move(user));
}

void session_delete::operator()(session *s) const {
    if (s->monitor != 0) platform::log_remove_listener(s->monitor);
    s->gone = true;
    session_cancel(*s);
    (void)session_interrupt(*s);  // nobody is left to read the result
    delete s;
}

void session_set_view(session &s, std::uint32_t view_flags, std::uint32_t show_all) {
    s.view_flags = view_flags;
    s.show_all = show_all;
}

void session_set_exact(session &s, bool exact) {
    s.exact = exact;
}

bool session_closed(const session &s) {
    return s.closed;
}

std::string_view session_prompt(const session &s) {
    if (s.collector) return "(replace)>";
    if (s.mode == CLI_MODE_INTERFACE) return "(config-if)#";
    if (s.mode == CLI_MODE_CONFIGURATION) return "(config)#";
    return "#";
}

int session_mode(const session &s) {
    return s.mode;
}

int session_privilege(const session &s) {
    return s.privilege;
}

caller caller_of(const session &s) {
    return {s.privilege, s.who};
}

session &session_of(struct cli *cli) {
    return *static_cast<session *>(cli->session);
}

int emit(session &s, std::string_view text) {
    while (!text.empty() && !s.gone) {
        const std::string_view piece = text.substr(0, piece_size(text));
        if (s.filter != nullptr)
            filter_feed(*s.filter, piece, [&](std::string_view line) { deliver(s, line); });
        else
            deliver(s, piece);
        text.remove_prefix(piece.size());
        rest(s);
    }
    return s.gone ? -1 : 0;
}

void finish_filter(session &s, line_filter &filter) {
    filter_finish(filter, [&](std::string_view text) { deliver(s, text); });
}

// ---- Lines ----

static int run_remembered(session &s, std::string_view line) {
    remember(s, line);
    line_fault fault;
    const int result = run_line(s, line, session_line_limit, &fault);
    if (fault.kind != fault_kind::none) (void)emit(s, fault_for_terminal(fault, line, session_line_limit, 0));
    return result;
}

int session_run(session &s, std::string_view line) {
    const platform::log_user of_user(s.user);
    return run_remembered(s, line);
}

void session_begin(session &s, std::string line) {
    s.place_before = {s.mode, s.ifp, s.range};
    s.result = 1;  // until it is known
    s.task = turns_begin([&s, text = std::move(line)] { s.result = run_remembered(s, text); });
}

bool session_turn(session &s, std::chrono::microseconds slice, int *result) {
    const platform::log_user of_user(s.user);  // of this turn's lines alone: others have theirs between
    try {
        if (!turns_go_on(*s.task, slice)) return false;
    } catch (...) {
        s.task.reset();
        s.filter.reset();
        throw;
    }
    s.task.reset();
    *result = s.result;
    return true;
}

bool session_busy(const session &s) {
    return s.task != nullptr;
}

void session_cancel(session &s) {
    if (s.task == nullptr) return;
    const platform::log_user of_user(s.user);
    s.task.reset();
    s.filter.reset();
    s.mode = s.place_before.mode;
    s.ifp = s.place_before.ifp;
    s.range = s.place_before.range;
}

// ---- Commands that go on ----

bool stream_begin(session &s, std::function<int()> stop) {
    if (!s.output.stream_end || s.stream_stop) return false;
    s.stream_stop = std::move(stop);
    return true;
}

int stream_emit(session &s, std::string_view text) {
    std::swap(s.filter, s.stream_filter);
    const int result = emit(s, text);
    std::swap(s.filter, s.stream_filter);
    return result;
}

static void finish_stream_filter(session &s) {
    const std::unique_ptr<line_filter> filter = std::exchange(s.stream_filter, nullptr);
    if (filter != nullptr) finish_filter(s, *filter);
}

void stream_finish(session &s, int result) {
    s.stream_stop = nullptr;
    finish_stream_filter(s);
    s.output.stream_end(result);
}

bool session_streaming(const session &s) {
    return static_cast<bool>(s.stream_stop);
}

int session_interrupt(session &s) {
    if (!s.stream_stop) return 0;
    const int result = std::exchange(s.stream_stop, nullptr)();
    finish_stream_filter(s);
    return result;
}

struct cli context_of(session &s) {
    struct cli out {};
    out.print = print_text;
    out.print_handle = &s.text_target;
    out.view_flags = s.view_flags;
    out.show_all = s.show_all;
    out.view_print = print_view;
    out.view_buffer = &s.value_target;
    out.ifp = s.ifp;
    out.mode = s.mode;
    out.privilege = s.privilege;
    out.session = &s;
    return out;
}

}  // namespace ravo::cli
