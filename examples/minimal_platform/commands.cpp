// SPDX-License-Identifier: Apache-2.0
// The command library, without a parser: a command is called by the text of its definition.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "cli.h"
#include "minimal.h"

namespace {

std::vector<cli_element *> elements;

int print(void *, const char *format, ...) {
    va_list words;
    va_start(words, format);
    const int count = std::vprintf(format, words);
    va_end(words);
    return count;
}

struct cli session = {.print = print,
                      .print_handle = nullptr,
                      .view_flags = 0,
                      .show_all = 0,
                      .view_print = nullptr,
                      .view_buffer = nullptr,
                      .ifp = nullptr,
                      .mode = CLI_MODE_CONFIGURATION,
                      .privilege = 15,
                      .session = nullptr};

}  // namespace

int minimal::command(const std::string &text, std::vector<std::string> words) {
    std::vector<char *> argv;
    for (std::string &word : words) argv.push_back(word.data());
    for (cli_element *element : elements)
        if (element->text == text) return element->handler(&session, static_cast<int>(argv.size()), argv.data());
    std::fprintf(stderr, "no command has this text: %s\n", text.c_str());
    std::exit(1);
}

int cli_install_gen(struct cli_tree *, int, int, uint32_t, struct cli_element *element) {
    elements.push_back(element);
    return 0;
}

int cli_install_config(struct cli_tree *, int, cli_config_writer) {
    return 0;
}

int cli_install_default(struct cli_tree *, int) {
    return 0;
}

int cli_install_reset(struct cli_tree *, cli_reset) {
    return 0;
}

int if_range_cli_init(struct cli_tree *) {
    return 0;
}

int cli_get_ifmode(const char *) {
    return CLI_MODE_INTERFACE;
}

int cmd_str2int(const char *text, int *ok) {
    char *end = nullptr;
    const long number = std::strtol(text, &end, 10);
    *ok = end != text && *end == '\0' && number == static_cast<int>(number) ? 1 : 0;
    return *ok == 1 ? static_cast<int>(number) : 0;
}
