// SPDX-License-Identifier: Apache-2.0
// A session's context points back at the session; its handles are addresses that nothing else has, so that output to a
// wrong handle is seen.
#include "fake_cli.h"

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdlib>

#include "fake_script.h"
#include "uib.h"

struct cli_tree {
    int number;
};

namespace fake {

std::vector<std::string> installs;
std::vector<cli_element *> installed_elements;
cli_config_writer installed_writer = nullptr;
cli_reset installed_reset = nullptr;
std::string ifmode_asked;

namespace {

cli_tree tree{1};
struct cli_globals globals {
    &tree
};

// The session behind an ordinary handle.
session *of_print(void *handle) {
    return static_cast<session *>(handle);
}

int print(void *handle, const char *format, ...) __attribute__((format(printf, 2, 3)));
int view_print(void *handle, const void *key, std::size_t key_length, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

int print(void *handle, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const std::string text = format_text(format, arguments);
    va_end(arguments);
    of_print(handle)->outputs.push_back({target::plain, {}, text});
    return static_cast<int>(text.size());
}

session *view_session = nullptr;  // whose handler runs

int view_print(void *handle, const void *key, std::size_t key_length, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const std::string text = format_text(format, arguments);
    va_end(arguments);
    session &to = *view_session;
    target where = target::wrong;
    if (handle == to.context.print_handle) where = target::terminal;
    if (handle == to.context.view_buffer) where = target::buffer;
    if (to.full) where = target::late;
    if (where == target::buffer) {
        if (to.keyed_room == 0) {
            to.full = true;
            return CLI_BUFFER_FULL;
        }
        if (to.keyed_room > 0) --to.keyed_room;
    }
    to.outputs.push_back({where, copy_bytes(key, key_length), text});
    return 0;
}

}  // namespace

session::session() {
    context.mode = CLI_MODE_EXEC;
    context.privilege = 31;
    attach();
}

session session::with_view(std::uint32_t view_flags) {
    session made;
    made.context.view_print = view_print;
    made.context.view_flags = view_flags;
    return made;
}

session::session(const session &other)
    : context(other.context),
      outputs(other.outputs),
      web_records(other.web_records),
      keyed_room(other.keyed_room),
      full(other.full),
      exact_access(other.exact_access) {
    attach();
}

session &session::operator=(const session &other) {
    if (this == &other) return *this;
    context = other.context;
    outputs = other.outputs;
    web_records = other.web_records;
    keyed_room = other.keyed_room;
    full = other.full;
    exact_access = other.exact_access;
    attach();
    return *this;
}

void session::attach() {
    context.print = print;
    context.print_handle = this;
    context.view_buffer = &keyed_room;
    context.session = this;
}

std::string session::text() const {
    std::string result;
    for (const output &entry : outputs) result += entry.text;
    return result;
}

std::string session::text(target where) const {
    std::string result;
    for (const output &entry : outputs)
        if (entry.where == where) result += entry.text;
    return result;
}

int session::run(cli_handler handler, const std::vector<std::string> &words) {
    // Each word is a block of its own, so that reading past its end is caught; NULL ends the vector.
    std::vector<std::vector<char>> copies;
    for (const std::string &word : words) copies.emplace_back(word.c_str(), word.c_str() + word.size() + 1);
    std::vector<char *> argv;
    for (std::vector<char> &copy : copies) argv.push_back(copy.data());
    argv.push_back(nullptr);
    session *const outer = view_session;
    view_session = this;
    const int result = handler(&context, static_cast<int>(words.size()), argv.data());
    view_session = outer;
    return result;
}

void session::forget() {
    outputs.clear();
    web_records.clear();
    full = false;
}

struct cli_globals *cli_globals_of_platform() {
    return &globals;
}

void reset_cli() {
    installs.clear();
    installed_elements.clear();
    installed_writer = nullptr;
    installed_reset = nullptr;
    ifmode_asked.clear();
}

}  // namespace fake

int cli_install_gen(cli_tree *, int mode, int privilege, std::uint32_t flags, cli_element *element) {
    fake::installs.push_back("gen " + std::to_string(mode) + " " + std::to_string(privilege) + " " +
                             std::to_string(flags) + " " + element->text);
    fake::installed_elements.push_back(element);
    return 0;
}

int cli_install_config(cli_tree *, int mode, cli_config_writer writer) {
    fake::installs.push_back("config " + std::to_string(mode));
    fake::installed_writer = writer;
    return 0;
}

int cli_install_default(cli_tree *, int mode) {
    fake::installs.push_back("default " + std::to_string(mode));
    return 0;
}

int cli_install_reset(cli_tree *, cli_reset reset) {
    fake::installs.push_back("reset");
    fake::installed_reset = reset;
    return 0;
}

int if_range_cli_init(cli_tree *) {
    fake::installs.push_back("range");
    return 0;
}

int cli_get_ifmode(const char *name) {
    fake::ifmode_asked = name != nullptr ? name : "(null)";
    return CLI_MODE_INTERFACE;
}

int cmd_str2int(const char *text, int *ok) {
    *ok = 0;
    const char *digits = *text == '-' || *text == '+' ? text + 1 : text;
    if (*digits < '0' || *digits > '9') return 0;
    char *end = nullptr;
    errno = 0;
    const long value = std::strtol(text, &end, 10);
    if (*end != '\0' || errno != 0 || value < INT_MIN || value > INT_MAX) return 0;
    *ok = 1;
    return static_cast<int>(value);
}

// ---- UI bridge ----

int UIB_WEB_Msg_Send(struct cli *cli, const void *record, std::size_t length) {
    if (const auto result = fake::scripted(fake::op::web_send)) return *result;
    static_cast<fake::session *>(cli->session)->web_records.push_back(fake::copy_bytes(record, length));
    return 0;
}

int UIB_OUT_TABLE_ENTRIES(struct cli *cli, uib_table *table) {
    const bool exact = static_cast<fake::session *>(cli->session)->exact_access && table->get_exact(table->key) == 1;
    if (exact && table->put_row(cli, table->key) == CLI_BUFFER_FULL) return CLI_BUFFER_FULL;
    while (table->get_next(table->key) == 1)
        if (table->put_row(cli, table->key) == CLI_BUFFER_FULL) return CLI_BUFFER_FULL;
    return 0;
}

int uib_snmp_key_send(struct cli *cli, const void *key, std::size_t key_length, ...) {
    static_cast<fake::session *>(cli->session)
        ->outputs.push_back({fake::target::row, fake::copy_bytes(key, key_length), ""});
    return 0;
}
