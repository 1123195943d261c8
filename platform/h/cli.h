// SPDX-License-Identifier: Apache-2.0
// Command library.
//
// The platform provides the command tree, the parser, sessions and their output. The daemon provides static command
// definitions with handlers, a writer for its section of the running configuration and a reset callback; the platform
// calls them on the event thread.
#ifndef PLATFORM_CLI_H
#define PLATFORM_CLI_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct cli;
struct cli_tree;
struct interface;

// Modes of the command line.
#define CLI_MODE_EXEC 4             // privileged execution
#define CLI_MODE_CONFIGURATION 5    // global configuration
#define CLI_MODE_INTERFACE 34       // interface configuration
#define CLI_MODE_RELAY_SECTION 135  // the relay's section of the running configuration

// Views: the flag bits of struct cli.
#define CLI_VIEW_TERMINAL 1  // lines for a person
#define CLI_VIEW_SETTINGS 2  // settings lines
#define CLI_VIEW_KEYED 4     // keyed value lines

// Result of view_print when the keyed-output buffer is full.
#define CLI_BUFFER_FULL 4

// Ordinary output. handle: print_handle of the context; format: as printf; lines carry their own line ends. Returns the
// number of bytes, or negative when the session is gone.
typedef int (*cli_print)(void *handle, const char *format, ...) __attribute__((format(printf, 2, 3)));

// Output of the view-aware handlers. target: view_buffer in the keyed view, else print_handle; key, key_length: the
// key that goes with a keyed line, NULL and 0 for none; format: as printf. Returns 0, or CLI_BUFFER_FULL.
typedef int (*cli_view_print)(void *target, const void *key, size_t key_length, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

// The context of one command of one session. It belongs to the platform and is valid while the handler runs.
struct cli {
    cli_print print;            // ordinary output, never NULL
    void *print_handle;         // handle of print
    uint32_t view_flags;        // CLI_VIEW_... bits; 0 on a plain terminal session
    uint32_t show_all;          // 1: plain lines are printed in the settings view too
    cli_view_print view_print;  // output of the view-aware handlers; NULL: they print nothing
    void *view_buffer;          // keyed-output buffer, the target of view_print in the keyed view
    struct interface *ifp;      // current interface of the session, set by the handler of "interface ..."
    int mode;                   // current mode of the session, set by the handler of "interface ..."
    int privilege;              // privilege of the session, 1 to 31
    void *session;              // the platform's own
};

// A handler. argc, argv: the variable words of the command in order (numbers as typed, "<1-4094>"; addresses; WORD;
// IFNAME; the chosen word of a {a|b} choice), and for an optional group [key VALUE] its keyword and its value; for an
// optional choice [a|b] the chosen word. argv belongs to the platform and is valid during the call. Returns 0 for
// success; any other value is an error whose message the handler has printed.
typedef int (*cli_handler)(struct cli *cli, int argc, char **argv);

// A command definition: static, never copied, never freed.
//
// text: words separated by blanks; trailing blanks count for nothing. A word in lower case is a keyword; "<a-b>" a
// number; "A.B.C.D" an address; "WORD" any word; "IFNAME" an interface name; "STATE" a state number; "{a|b}" one of
// these keywords; "[...]" a group that may be left out, holding words as above or a choice.
struct cli_element {
    const char *text;
    cli_handler handler;
    const char *const *help;  // one text a word in order (each word of a choice or group has its own), NULL at the end
    uintptr_t reserved[4];    // the library's own, zero
};

// What the command install callback receives.
struct cli_globals {
    struct cli_tree *tree;
};

typedef int (*cli_config_writer)(struct cli *cli);
typedef int (*cli_reset)(void);

// Installs a command. mode: CLI_MODE_...; privilege: least privilege of a session that may use it (31: meant for
// programs, not listed to people); flags: 0. Returns 0, or -1 when the text cannot be parsed (a line is logged).
int cli_install_gen(struct cli_tree *tree, int mode, int privilege, uint32_t flags, struct cli_element *element);

// Installs the writer of the configuration section with this mode number. The writer prints the section's commands and
// returns the number of sections written.
int cli_install_config(struct cli_tree *tree, int mode, cli_config_writer writer);

// Installs the library's default commands ("exit", "end", "do", ...) in a mode.
int cli_install_default(struct cli_tree *tree, int mode);

// Installs the reset callback, which brings the daemon back to its state after start-up.
int cli_install_reset(struct cli_tree *tree, cli_reset reset);

// Installs the library's interface-range commands.
int if_range_cli_init(struct cli_tree *tree);

// Returns the mode that "interface NAME" enters: CLI_MODE_INTERFACE.
int cli_get_ifmode(const char *name);

// Converts decimal text to a number. ok: set to 1 when the whole text is a decimal number that fits 32 bits signed (a
// leading "-" or "+" is allowed), else 0. Returns the number, 0 when *ok is 0.
int cmd_str2int(const char *text, int *ok);

#ifdef __cplusplus
}
#endif

#endif
