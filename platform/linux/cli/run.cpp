// SPDX-License-Identifier: Apache-2.0
// From a typed line to the handler's result.
//
// A line is split into words, what is behind "|" becomes an output filter, and the words are matched against the
// commands of the session's mode. In interface mode a line that is no command there is tried as a command of the global
// mode, and then leaves interface mode: configurations can be typed and replayed without "exit" between their parts.
// The handler gets a context that lives as long as its call; what it changes there (mode, current interface, privilege)
// is taken back into the session.
#include <algorithm>
#include <optional>
#include <utility>

#include "base/text.h"
#include "cli/session.h"
#include "cli/tree.h"
#include "cli/turns.h"
#include "log/log.h"
#include "nsm.h"
#include "process/relay_data.h"

namespace ravo::cli {

namespace {

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

match choose(const session &s, const caller &by, const std::vector<word> &words, std::string_view line) {
    match own = match_line(library_tree(), s.mode, by, words, line);
    if (s.mode != CLI_MODE_INTERFACE || own.result == match_result::complete || own.result == match_result::ambiguous)
        return own;
    match global = match_line(library_tree(), CLI_MODE_CONFIGURATION, by, words, line);
    // The more of the line was understood, the more the fault has to say.
    const bool better = global.result == match_result::complete || global.word > own.word;
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
    const match_result found = choose(s, {}, words, line).result;
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
    const match_result with_all = choose(s, {s.granted, s.who}, words, line).result;
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
std::uint64_t settings_made = 0;

// What a command changes it changes in one piece, unless it says that it can be cut.
bool is_divisible(const command_traits &traits) {
    return traits.effect == command_effect::looks || traits.in_turns || traits.has_line;
}

int run_guarded(session &s, const command &what, const std::vector<std::string> &arguments) {
    const auto run = [&] { return call_handler(s, what.handler, arguments); };
    if (what.traits.effect != command_effect::setting || what.traits.stands_for) return run();
    const relay_call call{s, what.text, what.mode == CLI_MODE_INTERFACE ? s.ifp : nullptr, arguments, what.traits};
    if (s.taker) return s.taker(call, run);
    ++settings_made;
    return guard ? guard(call, run) : run();
}

int run_handler(session &s, const command &what, const std::vector<std::string> &arguments) {
    const char *const name = s.ifp == nullptr ? nullptr : s.ifp->name;
    std::optional<turns_undivided> whole;
    if (!is_divisible(what.traits)) whole.emplace();
    const int result = run_guarded(s, what, arguments);
    return result != 0 && is_held(s, what, arguments, name) ? 0 : result;
}

int run_for_each_of_range(session &s, const command &what, const std::vector<std::string> &arguments) {
    int result = 0;
    for (struct interface *each : std::vector<struct interface *>(s.range)) {
        s.ifp = each;
        const int one = run_handler(s, what, arguments);
        if (result == 0) result = one;
        turns_pause_if_due();
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
    return s.filter != nullptr && s.filter->json && !what.traits.has_line;
}

// A check has the relay's settings judge their lines, on data that nobody uses. What other commands do, they do to the
// system.
bool is_passed_over(const session &s, const command &what) {
    if (!s.check_only) return false;
    const command_effect effect = what.traits.effect;
    return !what.traits.judged || (effect != command_effect::setting && effect != command_effect::session);
}

bool is_for_the_record(const session &s, const command_traits &traits) {
    const bool changes = traits.effect != command_effect::looks && traits.effect != command_effect::session;
    return changes && !traits.stands_for && !s.check_only && s.output.changed;
}

// Runs a command for the interfaces that it is for, and has it recorded.
int run_for_interfaces(session &s, const match &chosen, std::string_view line) {
    const command &what = *chosen.what;
    const bool of_interface = what.mode == CLI_MODE_INTERFACE && s.ifp != nullptr;
    const bool setting = what.traits.effect == command_effect::setting && !what.traits.stands_for;
    const bool of_range = setting && of_interface && !s.range.empty();
    std::string place = of_interface ? s.ifp->name : "";
    if (of_range && s.range.size() > 1) place += " and " + std::to_string(s.range.size() - 1) + " more";
    const int result =
        of_range ? run_for_each_of_range(s, what, chosen.arguments) : run_handler(s, what, chosen.arguments);
    if (!is_for_the_record(s, what.traits)) return result;
    if (s.collector)
        s.collected_for = trim(line);  // what becomes of it is known when its lines are there
    else
        s.output.changed(place, trim(line), result);
    return result;
}

int run_command(session &s, const match &chosen, std::string_view line) {
    const command &what = *chosen.what;
    if (wants_json(s, what)) return print_json(s, what, chosen.arguments);
    if (s.replayed && what.traits.effect == command_effect::files) {
        // A file that replays itself would never end, one that saves what it has made so far would lose its rest.
        (void)emit(s, "% Not possible while a configuration is replayed\n");
        return 1;
    }
    // A command of the global mode leaves the interface; what only looks may do so from anywhere.
    if (s.mode == CLI_MODE_INTERFACE && what.mode == CLI_MODE_CONFIGURATION &&
        what.traits.effect != command_effect::looks) {
        s.mode = CLI_MODE_CONFIGURATION;
        s.ifp = nullptr;
        s.range.clear();
    }
    if (is_passed_over(s, what)) return 0;
    if (s.taker && what.traits.effect != command_effect::setting && what.traits.effect != command_effect::session) {
        (void)emit(s, "% This sets nothing that a configuration has\n");
        return 1;
    }
    s.rest = display_columns(line, chosen.rest);
    return run_for_interfaces(s, chosen, line);
}

int run_words(session &s, std::string_view line, const std::vector<word> &words, line_fault *fault) {
    const match chosen = choose(s, caller_of(s), words, line);
    if (chosen.result == match_result::complete) return run_command(s, chosen, line);
    const bool hidden = chosen.result == match_result::invalid && is_for_others(s, words, line);
    *fault = hidden ? not_allowed(s, words, line) : fault_of(chosen, words, line);
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
    if (fault->kind == fault_kind::none) finish_filter(s, *done);
    return result;
}

std::string_view without_line_end(std::string_view line) {
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
    return line;
}

}  // namespace

int run_line(session &s, std::string_view line, std::size_t limit, line_fault *fault) {
    *fault = {};
    line = without_line_end(line);
    if (s.collector) {
        const line_taker take = s.collector;  // it may end itself
        const int result = take(s, line);
        if (!s.collector && s.output.changed) s.output.changed({}, s.collected_for, result);
        return result;
    }
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

int run_instead(struct cli *cli, const std::string &line) {
    line_fault fault;
    session &s = session_of(cli);
    const int result = run_line(s, line, file_line_limit, &fault);
    if (fault.kind != fault_kind::none) (void)emit(s, fault_for_terminal(fault, line, file_line_limit, 0));
    return result;
}

void set_relay_guard(relay_guard wanted) {
    guard = std::move(wanted);
}

std::uint64_t count_settings_made() {
    return settings_made;
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
