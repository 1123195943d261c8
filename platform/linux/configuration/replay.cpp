// SPDX-License-Identifier: Apache-2.0
// Files of commands, replayed in a session of their own.
//
// The session starts in the global configuration mode, so that a file is what "show running-config" prints; it may also
// hold what a person would type. A line that fails is reported with its place and its text, and the others count. A
// line that asks for what is in force already is no fault: a configuration can be replayed over itself.
#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>

#include "base/files.h"
#include "cli/session.h"
#include "configuration/configuration.h"
#include "configuration/replay.h"
#include "log/log.h"
#include "nsm.h"
#include "process/relay_data.h"
#include "settings/kept_settings.h"

namespace ravo::cli {

namespace {

std::string shortened(std::string_view text) {
    constexpr std::size_t limit = 120;
    // The text comes from a file that may hold anything: nothing of it may disturb the log or a terminal.
    std::string out(text.substr(0, limit));
    for (char &c : out)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = '?';
    return text.size() > limit ? out + "..." : out;
}

std::string reason_of(const line_fault &fault, std::string_view line, std::size_t limit) {
    switch (fault.kind) {
        case fault_kind::invalid:
            return "invalid input at \"" + shortened(fault.text) + "\", column " + std::to_string(fault.column + 1);
        case fault_kind::incomplete:
            return "incomplete command";
        case fault_kind::ambiguous:
            return "ambiguous command, write \"" + shortened(fault.text) + "\" in full";
        case fault_kind::too_long:
            return "line of " + std::to_string(line.size()) + " bytes, at most " + std::to_string(limit) +
                   " can be read";
        case fault_kind::bad_filter:
            return "invalid pattern: " + fault.text;
        case fault_kind::not_allowed:
            return "not allowed " + fault.text;
        case fault_kind::none:
            break;
    }
    return {};
}

// What a handler printed, as one line: its messages are lines that begin with "% ".
std::string reason_printed(std::string_view printed, int result) {
    std::string out;
    while (!printed.empty()) {
        const std::size_t end = printed.find('\n');
        std::string_view line = trim(printed.substr(0, end));
        printed.remove_prefix(end == std::string_view::npos ? printed.size() : end + 1);
        if (line.starts_with("% ")) line.remove_prefix(2);
        if (line.empty() || line == "^") continue;
        out += (out.empty() ? "" : "; ") + std::string(line);
    }
    return out.empty() ? "the command failed (" + std::to_string(result) + ")" : shortened(out);
}

struct replayer {
    session_ptr s;
    std::string printed;  // by the line that runs
};

// The relay's section of a configuration has a line for every record, also for one without settings: such a line brings
// its record back, which entering an interface does not do otherwise.
// entered: the interface whose section was read before.
void restore_record(const session &s, const struct interface **entered) {
    const struct interface *now = s.mode == CLI_MODE_INTERFACE && s.range.empty() ? s.ifp : nullptr;
    const bool other = now != nullptr && now != *entered;
    *entered = now;
    const relay_access *relay = platform::relay_data();
    if (!other || relay == nullptr) return;
    if (relay->interface_make(now->name) == 0)
        platform::log_line(platform::log_level_error, "no memory for the record of interface %s", now->name);
}

// Runs a line. The fault, if any: why it failed.
fault replay_line(replayer &r, std::string_view line) {
    r.printed.clear();
    r.s->closed = false;  // "exit" leaves a section here, never the file
    line_fault fault;
    int result = run_line(*r.s, line, file_line_limit, &fault);
    if (fault.kind == fault_kind::invalid && r.s->mode == CLI_MODE_EXEC) {
        // Behind "end" a file may go on with its configuration; a line that is none of it either changes nothing.
        r.s->mode = CLI_MODE_CONFIGURATION;
        line_fault there;
        result = run_line(*r.s, line, file_line_limit, &there);
        if (there.kind == fault_kind::invalid && there.column <= fault.column)
            r.s->mode = CLI_MODE_EXEC;
        else
            fault = there;
    }
    if (fault.kind != fault_kind::none) return {reason_of(fault, line, file_line_limit)};
    if (result == 0) return {};
    return {reason_printed(r.printed, result)};
}

std::size_t count_commands(std::string_view text) {
    std::size_t count = 0;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        const std::string_view line = trim(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        if (!line.empty() && line.front() != '!') ++count;
    }
    return count;
}

}  // namespace

int replay_lines(std::string_view text, const line_report &report, const std::function<void(session &s)> &prepare,
                 const std::function<void(session &s)> &each) {
    // Some editors begin a file with a mark that it is UTF-8, which nobody can see.
    constexpr std::string_view mark = "\xEF\xBB\xBF";
    if (text.starts_with(mark)) text.remove_prefix(mark.size());
    replayer r;
    r.s = session_capture(&r.printed, program_privilege, "configuration");
    r.s->mode = CLI_MODE_CONFIGURATION;
    r.s->replayed = true;
    prepare(*r.s);
    int failed = 0;
    for (std::size_t number = 1; !text.empty(); ++number) {
        const std::size_t end = text.find('\n');
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        const fault wrong = replay_line(r, line);
        if (each) each(*r.s);
        if (!wrong) continue;
        ++failed;
        report(number, wrong.text + ": " + shortened(trim(line)));
    }
    return failed;
}

int replay_file(const std::string &path, bool optional, bool check_only,
                const std::function<void(const std::string &line)> &report, std::size_t *commands) {
    std::string text;
    const int failed = platform::read_file(path, configuration_limit, &text);
    if (failed == ENOENT && optional) return 0;
    if (failed != 0) {
        report(path + ": cannot be read: " + std::strerror(failed));
        return -1;
    }
    if (commands != nullptr) *commands = count_commands(text);
    const kept_opening opening;  // sections of interfaces that are not there are judged like the others, and then wait
    const struct interface *entered = nullptr;
    return replay_lines(
        text,
        [&](std::size_t number, const std::string &reason) {
            report(path + ":" + std::to_string(number) + ": " + reason);
        },
        [&](session &s) {
            s.user = path;
            s.check_only = check_only;
        },
        [&](session &s) { restore_record(s, &entered); });
}

}  // namespace ravo::cli
