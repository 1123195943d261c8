// SPDX-License-Identifier: Apache-2.0
// libedit does the editing, with its emacs keys. Beside it: "?" and Tab ask the daemon; Ctrl-C and Ctrl-Z are keys like
// others while a line is typed, since the shell is left neither by a signal nor by being stopped; and reading a key
// also watches the daemon, so that lines of its log can be shown above the line being typed.
//
// Nothing here can start another program: the editor's own command line (Meta-x), through which its vi mode and with it
// an external editor could be reached, is taken off the keyboard, and no file of bindings is read.
#include "editor.h"

#include <histedit.h>
#include <poll.h>
#include <strings.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <utility>

#include "history_file.h"
#include "terminal.h"

namespace ravo::client {

struct editor {
    editor_host host;
    EditLine *line = nullptr;
    History *history = nullptr;
    std::string prompt;  // as it is shown now
    typed ending = typed::line;
    std::mbstate_t bytes{};  // of a character that has not come whole
};

namespace {

constexpr int second_ms = 1000;

volatile sig_atomic_t interrupted = 0;
volatile sig_atomic_t resized = 0;
volatile sig_atomic_t end_wanted = 0;

void on_signal(int number) {
    if (number == SIGINT) interrupted = 1;
    if (number == SIGWINCH) resized = 1;
    if (number == SIGTERM || number == SIGHUP) end_wanted = 1;
}

void catch_signals() {
    struct sigaction action {};
    action.sa_handler = on_signal;  // without SA_RESTART: waiting ends
    for (const int number : {SIGINT, SIGWINCH, SIGTERM, SIGHUP}) sigaction(number, &action, nullptr);
    // Stopping a login shell would leave a terminal that nobody answers on.
    for (const int number : {SIGTSTP, SIGQUIT, SIGPIPE}) std::signal(number, SIG_IGN);
}

editor &editor_of(EditLine *line) {
    void *data = nullptr;
    el_get(line, EL_CLIENTDATA, &data);
    return *static_cast<editor *>(data);
}

std::string before_cursor(EditLine *line) {
    const LineInfo *info = el_line(line);
    return {info->buffer, static_cast<std::size_t>(info->cursor - info->buffer)};
}

std::size_t characters(const char *from, const char *to) {
    return static_cast<std::size_t>(
        std::count_if(from, to, [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

// ---- Showing things beside the line ----

// Puts the cursor at the start of the first row that prompt and line take, and clears from there.
void wipe_line(const editor &e) {
    const LineInfo *info = el_line(e.line);
    const std::size_t before = e.prompt.size() + characters(info->buffer, info->cursor);
    const std::size_t rows_up = before / terminal_get_size().columns;
    std::string moves = "\r";
    if (rows_up > 0) moves += "\033[" + std::to_string(rows_up) + "A";
    terminal_write(moves + "\033[J");
}

// Puts the cursor behind the line's last character and begins a new row, with what was typed there to end it.
void leave_line(const editor &e, std::string_view key) {
    std::fflush(stdout);
    const LineInfo *info = el_line(e.line);
    const std::size_t columns = terminal_get_size().columns;
    const std::size_t at = e.prompt.size() + characters(info->buffer, info->cursor);
    const std::size_t end = at + characters(info->cursor, info->lastchar);
    std::string moves = "\r";
    if (end / columns > at / columns) moves += "\033[" + std::to_string(end / columns - at / columns) + "B";
    if (end % columns > 0) moves += "\033[" + std::to_string(end % columns) + "C";
    terminal_write(moves + std::string(key) + "\n");
}

void draw_again(editor &e) {
    e.prompt = e.host.prompt();
    el_set(e.line, EL_REFRESH);
    std::fflush(stdout);
}

// ---- Keys ----

// Makes Ctrl-C a signal again while the daemon is asked something: one that does not answer can be given up.
struct interruptible {
    termios before{};
    bool changed = false;
    interruptible() {
        constexpr cc_t ctrl_c = 3;
        if (tcgetattr(STDIN_FILENO, &before) != 0) return;
        termios with_signals = before;
        with_signals.c_lflag |= static_cast<tcflag_t>(ISIG);
        with_signals.c_cc[VINTR] = ctrl_c;
        changed = tcsetattr(STDIN_FILENO, TCSANOW, &with_signals) == 0;
    }
    interruptible(const interruptible &) = delete;
    interruptible &operator=(const interruptible &) = delete;
    ~interruptible() {
        if (changed) tcsetattr(STDIN_FILENO, TCSANOW, &before);
    }
};

std::string ask_help(const editor &e, std::string_view text) {
    const interruptible meanwhile;
    return e.host.help(text);
}

std::vector<std::string> ask_completions(const editor &e, std::string_view text) {
    const interruptible meanwhile;
    return e.host.complete(text);
}

bool inside_quotes(std::string_view text) {
    bool inside = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\') {
            ++i;
        } else if (text[i] == '"') {
            inside = !inside;
        }
    }
    return inside;
}

unsigned char key_help(EditLine *line, int /*key*/) {
    editor &e = editor_of(line);
    const std::string text = before_cursor(line);
    if (inside_quotes(text)) return el_insertstr(line, "?") == 0 ? CC_REFRESH : CC_ERROR;
    const std::string help = ask_help(e, text);
    leave_line(e, "?");
    terminal_write(help);
    draw_again(e);
    return CC_NORM;
}

std::string common_start(const std::vector<std::string> &words) {
    std::string common = words.front();
    for (const std::string &word : words) {
        const auto differ = std::mismatch(common.begin(), common.end(), word.begin(), word.end()).first;
        common.erase(differ, common.end());
    }
    return common;
}

std::string in_columns(const std::vector<std::string> &words) {
    std::size_t width = 0;
    for (const std::string &word : words) width = std::max(width, word.size() + 2);
    const std::size_t a_row = std::max<std::size_t>(1, terminal_get_size().columns / width);
    std::string text;
    for (std::size_t i = 0; i < words.size(); ++i) {
        const bool ends_row = i + 1 == words.size() || (i + 1) % a_row == 0;
        text += words[i];
        text += ends_row ? "\n" : std::string(width - words[i].size(), ' ');
    }
    return text;
}

unsigned char key_complete(EditLine *line, int /*key*/) {
    editor &e = editor_of(line);
    const std::string text = before_cursor(line);
    const std::vector<std::string> words = ask_completions(e, text);
    if (words.empty()) return CC_REFRESH_BEEP;
    const std::string last = text.substr(text.find_last_of(" \t") + 1);
    std::string put = common_start(words);
    if (words.size() == 1) put += " ";
    // The daemon takes letters of either case; what was typed stays.
    if (put.size() > last.size() && strncasecmp(put.c_str(), last.c_str(), last.size()) == 0)
        return el_insertstr(line, put.c_str() + last.size()) == 0 ? CC_REFRESH : CC_ERROR;
    if (words.size() == 1) return CC_REFRESH_BEEP;
    leave_line(e, "");
    terminal_write(in_columns(words));
    draw_again(e);
    return CC_NORM;
}

unsigned char end_line_by(EditLine *line, typed ending, std::string_view shown) {
    editor &e = editor_of(line);
    leave_line(e, shown);
    e.ending = ending;
    return CC_NEWLINE;
}

unsigned char key_drop(EditLine *line, int /*key*/) {
    return end_line_by(line, typed::dropped, "^C");
}

unsigned char key_end(EditLine *line, int /*key*/) {
    return end_line_by(line, typed::end, "^Z");
}

// ---- Reading ----

char *show_prompt(EditLine *line) {
    return editor_of(line).prompt.data();
}

// Waits for the keyboard and serves what else happens meanwhile. Returns false when there will be no more keys.
bool wait_for_key(editor &e) {
    for (;;) {
        if (end_wanted != 0) return false;
        if (resized != 0) {
            resized = 0;
            el_resize(e.line);
        }
        pollfd wait[2] = {{STDIN_FILENO, POLLIN, 0}, {e.host.watched(), POLLIN, 0}};
        const int ready = poll(wait, 2, wait[1].fd < 0 ? second_ms : -1);
        if (ready < 0 && errno != EINTR) return false;
        if (ready < 0) continue;
        if (ready == 0 || wait[1].revents != 0) e.host.attend();
        if (wait[0].revents != 0) return true;
    }
}

// Hands the editor one character. Returns 1, or 0 at the end of input.
int read_character(EditLine *line, wchar_t *out) {
    editor &e = editor_of(line);
    for (;;) {
        if (!wait_for_key(e)) return 0;
        char byte = 0;
        const ssize_t got = read(STDIN_FILENO, &byte, 1);
        if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (got != 1) return 0;
        const std::size_t used = std::mbrtowc(out, &byte, 1, &e.bytes);
        if (used == static_cast<std::size_t>(-2)) continue;  // more bytes belong to it
        if (used == static_cast<std::size_t>(-1)) {
            e.bytes = {};
            continue;  // no character of this terminal's encoding
        }
        return 1;
    }
}

void bind_keys(EditLine *line) {
    el_set(line, EL_EDITOR, "emacs");
    // In wide characters the editor keeps the texts as they are; of others it makes copies that it never frees.
    el_wset(line, EL_ADDFN, L"ravo-help", L"List what may come next", key_help);
    el_wset(line, EL_ADDFN, L"ravo-complete", L"Complete the word", key_complete);
    el_wset(line, EL_ADDFN, L"ravo-drop", L"Drop the line", key_drop);
    el_wset(line, EL_ADDFN, L"ravo-end", L"Leave configuration mode", key_end);
    el_set(line, EL_BIND, "?", "ravo-help", nullptr);
    el_set(line, EL_BIND, "^I", "ravo-complete", nullptr);
    el_set(line, EL_BIND, "^C", "ravo-drop", nullptr);
    el_set(line, EL_BIND, "^Z", "ravo-end", nullptr);
    el_set(line, EL_BIND, "^R", "em-inc-search-prev", nullptr);
    el_set(line, EL_BIND, "\\ex", "ed-unassigned", nullptr);
    el_set(line, EL_BIND, "\\eX", "ed-unassigned", nullptr);
    // While a line is typed, Ctrl-C and the others come as keys.
    el_set(line, EL_SETTY, "-d", "-isig", nullptr);
}

}  // namespace

void editor_delete::operator()(editor *e) const {
    if (e->line != nullptr) el_end(e->line);
    if (e->history != nullptr) history_end(e->history);
    delete e;
}

editor_ptr editor_open(editor_host host) {
    // A terminal that is not said to have an encoding is taken to have the usual one.
    if (std::setlocale(LC_CTYPE, "") == nullptr || MB_CUR_MAX == 1) (void)std::setlocale(LC_CTYPE, "C.UTF-8");
    catch_signals();
    editor_ptr e(new editor);
    e->host = std::move(host);
    e->line = el_init("ravosh", stdin, stdout, stderr);
    e->history = history_init();
    if (e->line == nullptr || e->history == nullptr) return nullptr;
    HistEvent event;
    history(e->history, &event, H_SETSIZE, static_cast<int>(history_kept));
    history(e->history, &event, H_SETUNIQUE, 1);
    el_set(e->line, EL_CLIENTDATA, e.get());
    el_set(e->line, EL_PROMPT, show_prompt);
    el_set(e->line, EL_SIGNAL, 0);
    el_set(e->line, EL_HIST, history, e->history);
    el_set(e->line, EL_GETCFN, read_character);
    bind_keys(e->line);
    return e;
}

typed editor_read(editor &e, std::string *line) {
    e.prompt = e.host.prompt();
    e.ending = typed::line;
    interrupted = 0;
    int count = 0;
    const char *got = el_gets(e.line, &count);
    line->clear();
    if (e.ending != typed::line) return e.ending;
    if (got == nullptr || count <= 0) return typed::leave;
    line->assign(got, static_cast<std::size_t>(count));
    while (line->ends_with('\n') || line->ends_with('\r')) line->pop_back();
    return typed::line;
}

void editor_remember(editor &e, const std::string &line) {
    HistEvent event;
    history(e.history, &event, H_ENTER, line.c_str());
}

void editor_show_above(editor &e, std::string_view text) {
    std::fflush(stdout);
    wipe_line(e);
    terminal_write(text);
    draw_again(e);
}

bool editor_take_interrupt() {
    const bool was = interrupted != 0;
    interrupted = 0;
    return was || end_wanted != 0;
}

}  // namespace ravo::client
