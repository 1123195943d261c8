// Sessions: from a typed line to the handler's result.
//
// A line is split into words, what stands behind "|" becomes an output filter, and the words are matched against the
// commands of the session's mode. In interface mode a line that is no command there is tried as a command of the global
// mode, and then leaves interface mode: configurations can be typed and replayed without "exit" between their parts.
// The handler gets a context that lives as long as its call; what it changes there (mode, current interface, privilege)
// is taken back into the session.
#include "cli/session.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <utility>

#include "base/text.h"
#include "cli/format.h"
#include "cli/tree.h"
#include "log/log.h"
#include "nsm.h"
#include "process/relay_data.h"

namespace ravo::cli {

namespace {

constexpr std::size_t history_limit = 100;
constexpr std::size_t remembered_line_limit = 4096;  // nobody looks for longer ones in a history

void deliver(session &s, std::string_view text) {
    if (!s.gone && s.output.text && s.output.text(text) < 0) s.gone = true;
}

// ---- What handlers print with ----

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

bool is_session_mode(int mode) {
    return mode == CLI_MODE_EXEC || mode == CLI_MODE_CONFIGURATION || mode == CLI_MODE_INTERFACE;
}

// The arguments of a handler, which may write into them.
std::vector<char *> argv_of(std::vector<std::string> &words) {
    std::vector<char *> argv;
    for (std::string &each : words) argv.push_back(each.data());
    argv.push_back(nullptr);
    return argv;
}

// ---- Choosing the command ----

struct choice {
    match found;
    int mode;  // whose command it is
};

choice choose(const session &s, const caller &by, const std::vector<word> &words, std::string_view line) {
    choice own{match_line(library_tree(), s.mode, by, words, line), s.mode};
    if (s.mode != CLI_MODE_INTERFACE || own.found.result == match_result::complete ||
        own.found.result == match_result::ambiguous)
        return own;
    choice global{match_line(library_tree(), CLI_MODE_CONFIGURATION, by, words, line), CLI_MODE_CONFIGURATION};
    // The more of the line was understood, the more the fault has to say.
    const bool better = global.found.result == match_result::complete || global.found.word > own.found.word;
    return better ? global : own;
}

line_fault fault_of(const match &found, const std::vector<word> &words, std::string_view line) {
    line_fault out;
    if (found.result == match_result::incomplete) {
        out.kind = fault_kind::incomplete;
        return out;
    }
    const word &typed = words[found.word];
    out.column = typed.column;
    if (found.result == match_result::ambiguous) {
        out.kind = fault_kind::ambiguous;
        out.text = trim(line.substr(0, typed.end));
    } else {
        out.kind = fault_kind::invalid;
        out.text = line.substr(typed.column, typed.end - typed.column);
    }
    return out;
}

// A line that is nothing to this session may be a command all the same, which others may give.
bool is_for_others(const session &s, const std::vector<word> &words, std::string_view line) {
    const match_result found = choose(s, {}, words, line).found.result;
    return found == match_result::complete || found == match_result::incomplete;
}

// Why the session may not give a command that is there.
line_fault not_allowed(const session &s, const std::vector<word> &words, std::string_view line) {
    line_fault out;
    out.kind = fault_kind::not_allowed;
    if (s.who == audience::viewers) {
        platform::log_line(platform::log_level_warning, "user %s may only use show commands, refused: %s",
                           s.user.c_str(), platform::printable_text(trim(line)).c_str());
        out.text = "for your group";
        return out;
    }
    out.text = "at privilege level " + std::to_string(s.privilege);
    const match_result with_all = choose(s, {s.granted, s.who}, words, line).found.result;
    if (with_all == match_result::complete || with_all == match_result::incomplete)
        out.text += "; \"enable\" gives back that of the session";
    return out;
}

// ---- Running it ----

bool is_held(const session &s, const command &what, const std::vector<std::string> &arguments, const char *interface) {
    const relay_access *relay = platform::relay_data();
    return s.replayed && what.traits.held != nullptr && relay != nullptr &&
           what.traits.held({*relay, arguments, interface});
}

relay_guard guard;

int run_guarded(session &s, const command &what, const std::vector<std::string> &arguments) {
    const auto run = [&] { return call_handler(s, what.handler, arguments); };
    if (what.traits.effect != command_effect::setting || !guard) return run();
    return guard({s, what.text, what.mode == CLI_MODE_INTERFACE ? s.ifp : nullptr}, run);
}

int run_handler(session &s, const command &what, const std::vector<std::string> &arguments) {
    const char *const name = s.ifp == nullptr ? nullptr : s.ifp->name;
    const int result = run_guarded(s, what, arguments);
    return result != 0 && is_held(s, what, arguments, name) ? 0 : result;
}

int run_for_each_of_range(session &s, const command &what, const std::vector<std::string> &arguments) {
    int result = 0;
    for (struct interface *each : std::vector<struct interface *>(s.range)) {
        s.ifp = each;
        const int one = run_handler(s, what, arguments);
        if (result == 0) result = one;
    }
    return result;
}

int print_json(session &s, const command &what, const std::vector<std::string> &arguments) {
    if (what.traits.json == nullptr) {
        (void)emit(s, "% No JSON for this command\n");
        return 1;
    }
    std::vector<std::string> words = arguments;
    std::vector<char *> argv = argv_of(words);
    struct cli context = context_of(s);
    json_writer out;
    out.sink = [&s](std::string_view piece) { (void)emit(s, piece); };
    return what.traits.json(&context, static_cast<int>(words.size()), argv.data(), out);
}

bool wants_json(const session &s, const command &what) {
    return s.filter != nullptr && s.filter->kind == filter_kind::json && !what.traits.has_line;
}

// A check has the relay's settings judge their lines, on data that nobody uses. What other commands do, they do to the
// system.
bool is_passed_over(const session &s, const command &what) {
    if (!s.check_only) return false;
    const command_effect effect = what.traits.effect;
    return !what.traits.judged || (effect != command_effect::setting && effect != command_effect::session);
}

int run_command(session &s, const choice &chosen, std::string_view line) {
    const command &what = *chosen.found.what;
    if (wants_json(s, what)) return print_json(s, what, chosen.found.arguments);
    if (s.replayed && what.traits.effect == command_effect::files) {
        // A file that replays itself would never end, one that saves what it has made so far would lose its rest.
        (void)emit(s, "% Not possible while a configuration is replayed\n");
        return 1;
    }
    if (s.mode == CLI_MODE_INTERFACE && chosen.mode == CLI_MODE_CONFIGURATION) {
        s.mode = CLI_MODE_CONFIGURATION;
        s.ifp = nullptr;
        s.range.clear();
    }
    if (is_passed_over(s, what)) return 0;
    s.rest = display_columns(line, chosen.found.rest);
    if (what.traits.effect == command_effect::setting && what.mode == CLI_MODE_INTERFACE && !s.range.empty())
        return run_for_each_of_range(s, what, chosen.found.arguments);
    return run_handler(s, what, chosen.found.arguments);
}

int run_words(session &s, std::string_view line, const std::vector<word> &words, line_fault *fault) {
    const choice chosen = choose(s, caller_of(s), words, line);
    if (chosen.found.result == match_result::complete) return run_command(s, chosen, line);
    const bool hidden = chosen.found.result == match_result::invalid && is_for_others(s, words, line);
    *fault = hidden ? not_allowed(s, words, line) : fault_of(chosen.found, words, line);
    return 1;
}

line_fault fault_of(const filter_fault &found, std::string_view line, std::size_t behind_pipe) {
    line_fault out;
    out.column = behind_pipe + found.column;
    switch (found.kind) {
        case filter_fault::incomplete:
            out.kind = fault_kind::incomplete;
            break;
        case filter_fault::ambiguous:
            out.kind = fault_kind::ambiguous;
            out.text = trim(line.substr(0, out.column + found.reason.size()));
            break;
        case filter_fault::pattern:
            out.kind = fault_kind::bad_filter;
            out.text = found.reason;
            break;
        default:
            out.kind = fault_kind::invalid;
            out.text = trim(line.substr(std::min(out.column, line.size())));
    }
    return out;
}

int run_filtered(session &s, std::string_view line, const split_line &parts, line_fault *fault) {
    const std::size_t behind_pipe = parts.pipe + 1;
    filter_fault found;
    std::unique_ptr<line_filter> filter = filter_read(line.substr(behind_pipe), &found);
    if (filter == nullptr) {
        *fault = fault_of(found, line, behind_pipe);
        return 1;
    }
    s.filter = std::move(filter);
    const int result = run_words(s, line.substr(0, parts.pipe), parts.words, fault);
    std::unique_ptr<line_filter> done = std::exchange(s.filter, nullptr);
    if (s.stream_stop) {
        s.stream_filter = std::move(done);
        return result;
    }
    if (fault->kind == fault_kind::none) filter_finish(*done, [&](std::string_view text) { deliver(s, text); });
    return result;
}

std::string_view without_line_end(std::string_view line) {
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
    return line;
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
    (void)session_interrupt(*s);  // nobody is left to be told the result
    delete s;
}

void session_set_view(session &s, std::uint32_t view_flags, std::uint32_t show_all) {
    s.view_flags = view_flags;
    s.show_all = show_all;
}

void session_set_exact(session &s, bool exact) {
    s.exact = exact;
}

int run_line(session &s, std::string_view line, std::size_t limit, line_fault *fault) {
    *fault = {};
    line = without_line_end(line);
    if (line.size() > limit) {
        fault->kind = fault_kind::too_long;
        return 1;
    }
    const std::string_view text = trim(line);
    if (text.empty() || text.front() == '!') return 0;
    const split_line parts = split(line);
    if (parts.pipe != std::string_view::npos && !parts.words.empty()) return run_filtered(s, line, parts, fault);
    if (!parts.words.empty()) return run_words(s, line, parts.words, fault);
    *fault = {fault_kind::invalid, parts.pipe, "|"};
    return 1;
}

int session_run(session &s, std::string_view line) {
    const platform::log_user of_user(s.user);
    remember(s, line);
    line_fault fault;
    const int result = run_line(s, line, session_line_limit, &fault);
    if (fault.kind != fault_kind::none) (void)emit(s, fault_for_terminal(fault, line, session_line_limit, 0));
    return result;
}

std::string fault_for_terminal(const line_fault &fault, std::string_view line, std::size_t limit, std::size_t offset) {
    switch (fault.kind) {
        case fault_kind::none:
            return {};
        case fault_kind::invalid:
            return std::string(offset + display_columns(line, fault.column), ' ') +
                   "^\n% Invalid input detected at '^' marker.\n";
        case fault_kind::incomplete:
            return "% Incomplete command.\n";
        case fault_kind::ambiguous:
            return "% Ambiguous command: \"" + fault.text + "\"\n";
        case fault_kind::too_long:
            return "% Line too long: " + std::to_string(line.size()) + " bytes, at most " + std::to_string(limit) +
                   "\n";
        case fault_kind::bad_filter:
            return "% Invalid pattern: " + fault.text + "\n";
        case fault_kind::not_allowed:
            return "% Not allowed " + fault.text + "\n";
    }
    return {};
}

void set_relay_guard(relay_guard wanted) {
    guard = std::move(wanted);
}

bool session_closed(const session &s) {
    return s.closed;
}

std::string_view session_prompt(const session &s) {
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
    if (s.filter != nullptr)
        filter_feed(*s.filter, text, [&](std::string_view line) { deliver(s, line); });
    else
        deliver(s, text);
    return s.gone ? -1 : 0;
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
    if (filter != nullptr) filter_finish(*filter, [&](std::string_view text) { deliver(s, text); });
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

int call_handler(session &s, cli_handler handler, const std::vector<std::string> &arguments) {
    std::vector<std::string> words = arguments;
    std::vector<char *> argv = argv_of(words);
    struct cli context = context_of(s);
    const int result = handler(&context, static_cast<int>(words.size()), argv.data());
    if (is_session_mode(context.mode)) s.mode = context.mode;
    s.ifp = s.mode == CLI_MODE_INTERFACE ? context.ifp : nullptr;
    if (s.mode != CLI_MODE_INTERFACE) s.range.clear();
    s.privilege = std::clamp(context.privilege, 1, s.granted);
    return result;
}

}  // namespace ravo::cli
