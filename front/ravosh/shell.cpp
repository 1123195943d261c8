// SPDX-License-Identifier: Apache-2.0
// The shell reads a line, has it run, and shows the answer page by page. The daemon may go and come back at any time: a
// lost connection is reported at once, above the line being typed, and tried again every second; the line stays.
#include "shell.h"

#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "batch.h"
#include "client.h"
#include "editor.h"
#include "history_file.h"
#include "pager.h"
#include "terminal.h"

namespace ravo::client {

namespace {

struct shell {
    std::string socket;
    std::string host;
    std::string history_file;
    connection_ptr daemon;  // NULL while it is lost
    std::string prompt_text = "#";
    int page = -1;
    editor_ptr line;
};

std::string host_name() {
    char name[HOST_NAME_MAX + 1] = {};
    if (gethostname(name, sizeof(name) - 1) != 0) return "ravo";
    std::string host(name);
    return host.substr(0, host.find('.'));
}

void take_state(shell &sh) {
    sh.prompt_text = state(*sh.daemon).prompt;
    sh.page = state(*sh.daemon).page;
}

std::string prompt(const shell &sh) {
    return sh.host + sh.prompt_text;
}

void show_line(std::string_view line) {
    terminal_write(terminal_safe(line) + "\n");
}

// ---- The connection ----

void lose(shell &sh) {
    sh.daemon.reset();
    sh.prompt_text = "#";
    sh.page = -1;
}

fault reach(shell &sh) {
    fault wrong = open({.socket = sh.socket, .timeout_seconds = 2}, &sh.daemon);
    if (!wrong) take_state(sh);
    return wrong;
}

constexpr std::string_view lost_line = "% Connection to ravod lost; trying again.\n";
constexpr std::string_view given_up_line = "% Given up; the session begins anew.";
constexpr std::string_view back_line = "% Connected to ravod again.\n";

// Called while a line is being typed, when the daemon sent something or, without a connection, every second.
void attend_daemon(shell &sh) {
    std::string text;
    if (sh.daemon == nullptr) {
        if (!reach(sh)) text = back_line;
    } else {
        handlers to;
        to.monitor = [&text](std::string_view line) { text += terminal_safe(line) + "\n"; };
        if (attend(*sh.daemon, to)) {
            lose(sh);
            text += lost_line;
        }
    }
    if (!text.empty()) editor_show_above(*sh.line, text);
}

// Makes sure that there is a daemon to talk to. Returns false, and shows why, when there is none.
bool have_daemon(shell &sh) {
    if (sh.daemon != nullptr) return true;
    if (const fault wrong = reach(sh)) {
        show_line("% Not connected: " + wrong.text);
        return false;
    }
    terminal_write(back_line);
    return true;
}

// ---- Commands ----

bool ask_person(const std::string &question) {
    terminal_write(terminal_safe(question) + " [y/N] ");
    const int key = terminal_read_key(editor_take_interrupt);
    const bool yes = key == 'y' || key == 'Y';
    terminal_write(yes ? "y\n" : "n\n");
    return yes;
}

std::size_t page_length(const shell &sh) {
    return sh.page >= 0 ? static_cast<std::size_t>(sh.page) : terminal_get_size().rows;
}

// What leaves the shell also while there is no daemon to run it.
bool is_exit(std::string_view line) {
    constexpr std::string_view blanks = " \t";
    const std::size_t first = std::min(line.find_first_not_of(blanks), line.size());
    const std::string_view word = line.substr(first, line.find_last_not_of(blanks) + 1 - first);
    return word == "exit" || word == "quit";
}

// Runs a line and shows the answer. Returns false when the session is over.
bool run_typed(shell &sh, const std::string &line) {
    if (!have_daemon(sh)) return !is_exit(line);
    const std::size_t prompt_width = prompt(sh).size();
    std::string text;
    bool streaming = false;
    handlers to;
    const auto take = [&](std::string_view piece) {
        text += piece;
        if (streaming) terminal_write(terminal_safe(std::exchange(text, {})));
    };
    to.text = take;
    to.monitor = [&](std::string_view log_line) { take(std::string(log_line) + "\n"); };
    to.streaming = [&] {
        streaming = true;
        take({});
    };
    to.cancelled = editor_take_interrupt;
    command what{.line = line, .interactive = true};
    answer a = run(*sh.daemon, what, to);
    if (a.outcome == outcome::answered && !a.question.empty()) {
        if (!ask_person(a.question)) return true;
        what.confirmed = true;
        a = run(*sh.daemon, what, to);
    }
    if (sh.daemon != nullptr && a.outcome == outcome::answered) take_state(sh);
    page_text(terminal_safe(shift_caret(text, prompt_width)), page_length(sh), editor_take_interrupt);
    if (a.outcome == outcome::answered) return !state(*sh.daemon).closed;
    show_line(a.outcome == outcome::cancelled ? std::string(given_up_line) : "% " + a.reason);
    lose(sh);
    return true;
}

// Handlers for a request of the line being typed: log lines that come meanwhile are put aside.
handlers log_lines_to(std::string *text) {
    handlers to;
    to.monitor = [text](std::string_view line) { *text += terminal_safe(line) + "\n"; };
    to.cancelled = editor_take_interrupt;
    return to;
}

std::string help_text_for(shell &sh, std::string_view line) {
    if (sh.daemon == nullptr) return "% Not connected.\n";
    std::vector<help_row> rows;
    std::string text;
    const answer a = help(*sh.daemon, line, &rows, log_lines_to(&text));
    if (a.outcome != outcome::answered) {
        lose(sh);
        return text + std::string(lost_line);
    }
    if (rows.empty()) return text + "% Nothing is known that begins so.\n";
    std::size_t width = 0;
    for (const help_row &row : rows) width = std::max(width, row.word.size());
    for (const help_row &row : rows)
        text += "  " + row.word + std::string(width - row.word.size() + 2, ' ') + row.text + "\n";
    return text;
}

std::vector<std::string> completions(shell &sh, std::string_view line) {
    std::vector<std::string> words;
    if (sh.daemon == nullptr) return words;
    std::string text;
    const answer a = complete(*sh.daemon, line, &words, log_lines_to(&text));
    if (a.outcome != outcome::answered) {
        lose(sh);
        text += lost_line;
    }
    if (!text.empty()) editor_show_above(*sh.line, text);
    return words;
}

editor_host host_of(shell &sh) {
    editor_host host;
    host.prompt = [&sh] { return prompt(sh); };
    host.help = [&sh](std::string_view line) { return help_text_for(sh, line); };
    host.complete = [&sh](std::string_view line) { return completions(sh, line); };
    host.watched = [&sh] { return sh.daemon == nullptr ? -1 : descriptor(*sh.daemon); };
    host.attend = [&sh] { attend_daemon(sh); };
    return host;
}

void remember(shell &sh, const std::string &line) {
    if (line.find_first_not_of(" \t") == std::string::npos) return;
    editor_remember(*sh.line, line);
    history_append(sh.history_file, line);
}

// Whoever drops a line of a text that the daemon collects means all of it.
void give_up_text(shell &sh) {
    if (!sh.prompt_text.ends_with('>')) return;
    show_line(given_up_line);
    lose(sh);
}

void talk(shell &sh) {
    for (bool going = true; going;) {
        std::string line;
        switch (editor_read(*sh.line, &line)) {
            case typed::leave:
                terminal_write("\n");
                return;
            case typed::dropped:
                give_up_text(sh);
                break;
            case typed::end:
                going = run_typed(sh, "end");
                break;
            case typed::line:
                remember(sh, line);
                going = run_typed(sh, line);
                break;
        }
    }
}

}  // namespace

int run_shell(const shell_options &options) {
    shell sh;
    sh.socket = options.socket;
    sh.host = host_name();
    sh.history_file = history_path();
    if (const fault wrong = reach(sh)) {
        std::fprintf(stderr, "ravosh: %s\n", wrong.text.c_str());
        return exit_unreachable;
    }
    sh.line = editor_open(host_of(sh));
    if (sh.line == nullptr) {
        std::fprintf(stderr, "ravosh: this terminal cannot be used for typing; give commands with -c\n");
        return exit_unreachable;
    }
    for (const std::string &line : history_load(sh.history_file)) editor_remember(*sh.line, line);
    talk(sh);
    return exit_good;
}

}  // namespace ravo::client
