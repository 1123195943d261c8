// SPDX-License-Identifier: Apache-2.0
// The frames of the management socket, as docs/management-protocol.md describes them: one definition for the daemon and
// for the programs that talk to it.
//
// A frame is a type (one byte), the length of its payload (four bytes, big-endian) and the payload. Every message has a
// record here, a function that makes its whole frame, and a function that reads its payload, which takes nothing that
// is longer or shorter than it must be.
#ifndef PROTOCOL_MANAGEMENT_PROTOCOL_H
#define PROTOCOL_MANAGEMENT_PROTOCOL_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "wire.h"

namespace ravo::protocol {

inline constexpr std::uint32_t magic = 0x5241564F;  // "RAVO": begins a hello and a welcome
inline constexpr std::uint16_t version = 1;
inline constexpr std::size_t head_size = 5;
inline constexpr std::size_t max_request = 64 * 1024;    // payload of a frame to the daemon
inline constexpr std::size_t max_reply = 1024 * 1024;    // payload of a frame from the daemon
inline constexpr std::size_t max_command_line = 0x8000;  // bytes of a command line
inline constexpr std::size_t max_name = 64;              // bytes of the name in a behalf frame
inline constexpr std::size_t max_output_piece = 0x8000;  // longer text is sent in several frames

enum class frame_type : std::uint8_t {
    // To the daemon.
    hello = 1,
    run = 2,
    help = 3,
    complete = 4,
    interrupt = 5,
    behalf = 6,
    // From the daemon.
    welcome = 129,
    refused = 130,
    output = 131,
    value = 132,
    record = 133,
    row_key = 134,
    monitor = 135,
    help_row = 136,
    completion = 137,
    status = 138,
    stream = 139,
};

struct frame_head {
    std::uint8_t type;     // frame_type, not checked
    std::uint32_t length;  // of the payload in bytes, not checked
};

// Reads a frame's head; nothing while it is not all there.
inline std::optional<frame_head> read_head(std::span<const std::uint8_t> data) {
    byte_reader in{data};
    const frame_head head{in.u8(), in.u32()};
    if (in.failed) return std::nullopt;
    return head;
}

inline bytes make_frame(frame_type type, std::span<const std::uint8_t> payload) {
    byte_writer out;
    out.out.reserve(head_size + payload.size());
    out.u8(static_cast<std::uint8_t>(type)).u32(static_cast<std::uint32_t>(payload.size())).raw(payload);
    return std::move(out.out);
}
inline bytes make_frame(frame_type type, std::string_view payload) {
    return make_frame(type, as_bytes(payload));
}

// A frame without a payload.
inline bytes make_frame(frame_type type) {
    return {static_cast<std::uint8_t>(type), 0, 0, 0, 0};
}

// ---- To the daemon ----

// The first frame of a session.
struct hello_message {
    std::uint16_t version = protocol::version;
    std::uint8_t privilege = 31;  // most that is wanted, 1 to 31; the daemon may grant less
    std::uint8_t mode = 4;        // mode to start in: 4 privileged execution, 5 global configuration
};

inline bytes hello_frame(const hello_message &m) {
    byte_writer out;
    out.u32(magic).u16(m.version).u8(m.privilege).u8(m.mode);
    return make_frame(frame_type::hello, out.out);
}

// A hello of a later version may be longer; what it has behind these fields is not looked at.
inline std::optional<hello_message> read_hello(std::span<const std::uint8_t> payload) {
    byte_reader in{payload};
    const bool ours = in.u32() == magic;
    const hello_message m{in.u16(), in.u8(), in.u8()};
    if (in.failed || !ours) return std::nullopt;
    if (m.version == version && !in.complete()) return std::nullopt;
    return m;
}

inline constexpr std::uint8_t run_interactive = 1;  // a person is there to be asked
inline constexpr std::uint8_t run_confirmed = 2;    // the person said yes
inline constexpr std::uint8_t run_exact = 4;        // of a table the row with the given key alone, if there is one

// Run a command line.
struct run_message {
    std::uint32_t id = 0;       // comes back in the status
    std::uint8_t view = 0;      // 0 plain, or bits: 1 terminal, 2 settings, 4 keyed
    std::uint8_t show_all = 0;  // 1: plain lines in the settings view too
    std::uint8_t flags = 0;     // run_... bits
    std::string line;
};

inline bytes run_frame(const run_message &m) {
    byte_writer out;
    out.u32(m.id).u8(m.view).u8(m.show_all).u8(m.flags).rest(m.line);
    return make_frame(frame_type::run, out.out);
}

inline std::optional<run_message> read_run(std::span<const std::uint8_t> payload) {
    byte_reader in{payload};
    run_message m{in.u32(), in.u8(), in.u8(), in.u8(), in.rest()};
    if (in.failed || m.view > 7 || m.show_all > 1 || m.flags > (run_interactive | run_confirmed | run_exact))
        return std::nullopt;
    return m;
}

// Ask about a half-typed line: help for, or completions of, its last word.
struct ask_message {
    std::uint32_t id = 0;  // comes back in the status
    std::string line;
};

inline bytes ask_frame(frame_type type, const ask_message &m) {
    byte_writer out;
    out.out.reserve(sizeof m.id + m.line.size());
    out.u32(m.id).rest(m.line);
    return make_frame(type, out.out);
}

inline std::optional<ask_message> read_ask(std::span<const std::uint8_t> payload) {
    byte_reader in{payload};
    ask_message m{in.u32(), in.rest()};
    if (in.failed) return std::nullopt;
    return m;
}

// End a command that runs or goes on; without one nothing happens.
inline bytes interrupt_frame() {
    return make_frame(frame_type::interrupt);
}

// On whose behalf the session's next commands are given, when a program has users of its own: a name for the audit
// lines, which have it beside the peer's user. It gives no rights.
inline bytes behalf_frame(std::string_view name) {
    return make_frame(frame_type::behalf, name);
}

// A name of 1 to max_name printable characters without blanks, ASCII.
inline std::optional<std::string> read_behalf(std::span<const std::uint8_t> payload) {
    const std::string_view name = as_text(payload);
    if (name.empty() || name.size() > max_name) return std::nullopt;
    for (const char c : name)
        if (c <= ' ' || c > '~') return std::nullopt;
    return std::string(name);
}

// ---- From the daemon ----

// The command that runs goes on: its output comes as it happens, its status when it is interrupted or ends by itself.
inline bytes stream_frame() {
    return make_frame(frame_type::stream);
}

// The answer to a hello.
struct welcome_message {
    std::uint16_t version = protocol::version;
    std::uint8_t privilege = 0;   // granted
    std::uint8_t may_change = 0;  // 1: everything of this privilege; 0: only the show commands
    std::uint8_t mode = 0;        // the session's mode
    std::string prompt;           // text that goes with the mode: "#"
    std::string daemon_version;
};

inline bytes welcome_frame(const welcome_message &m) {
    byte_writer out;
    out.u32(magic).u16(m.version).u8(m.privilege).u8(m.may_change).u8(m.mode).text(m.prompt).text(m.daemon_version);
    return make_frame(frame_type::welcome, out.out);
}

inline std::optional<welcome_message> read_welcome(std::span<const std::uint8_t> payload) {
    byte_reader in{payload};
    const bool ours = in.u32() == magic;
    welcome_message m{in.u16(), in.u8(), in.u8(), in.u8(), in.text(), in.text()};
    if (!in.complete() || !ours) return std::nullopt;
    return m;
}

enum class refusal : std::uint8_t {
    not_permitted = 1,  // the peer's user may not use the daemon
    too_many = 2,       // no session is free, of all or of those that one user may have
    other_version = 3,  // the hello's version is not spoken here
    malformed = 4,      // a frame that breaks the protocol
    too_slow = 5,       // a frame or a hello that did not come in time
    idle = 6,           // a session that nobody used
    cleared = 7,        // somebody ended the session ("clear session")
};

// The daemon closes the connection; the reason is one line for a person.
struct refused_message {
    refusal reason = refusal::malformed;
    std::string text;
};

inline bytes refused_frame(const refused_message &m) {
    byte_writer out;
    out.u8(static_cast<std::uint8_t>(m.reason)).rest(m.text);
    return make_frame(frame_type::refused, out.out);
}

inline std::optional<refused_message> read_refused(std::span<const std::uint8_t> payload) {
    byte_reader in{payload};
    refused_message m{static_cast<refusal>(in.u8()), in.rest()};
    if (in.failed) return std::nullopt;
    return m;
}

// A keyed value line.
struct value_message {
    std::string key;  // bytes, empty: none
    std::string text;
};

inline bytes value_frame(std::span<const std::uint8_t> key, std::string_view text) {
    byte_writer out;
    out.text(as_text(key)).rest(text);
    return make_frame(frame_type::value, out.out);
}

inline std::optional<value_message> read_value(std::span<const std::uint8_t> payload) {
    byte_reader in{payload};
    value_message m{in.text(), in.rest()};
    if (in.failed) return std::nullopt;
    return m;
}

// A word that may come next and its help text.
struct help_message {
    std::string word;
    std::string text;
};

inline bytes help_frame(const help_message &m) {
    byte_writer out;
    out.text(m.word).text(m.text);
    return make_frame(frame_type::help_row, out.out);
}

inline std::optional<help_message> read_help(std::span<const std::uint8_t> payload) {
    byte_reader in{payload};
    help_message m{in.text(), in.text()};
    if (!in.complete()) return std::nullopt;
    return m;
}

inline constexpr std::uint8_t status_closed = 1;    // the session is over, the daemon closes the connection
inline constexpr std::uint8_t status_question = 2;  // nothing was done yet: ask the person, run again with a yes

// The end of every request.
struct status_message {
    std::uint32_t id = 0;     // of the request
    std::int32_t result = 0;  // 0 success
    std::uint8_t flags = 0;   // status_... bits
    std::uint8_t mode = 0;    // the session's mode
    std::int32_t page = -1;   // lines of a page as the session set them, 0: no pages; -1: never set
    std::string prompt;       // text that goes with the mode
    std::string question;     // with status_question
};

inline bytes status_frame(const status_message &m) {
    byte_writer out;
    out.u32(m.id).u32(static_cast<std::uint32_t>(m.result)).u8(m.flags).u8(m.mode);
    out.u32(static_cast<std::uint32_t>(m.page)).text(m.prompt).text(m.question);
    return make_frame(frame_type::status, out.out);
}

inline std::optional<status_message> read_status(std::span<const std::uint8_t> payload) {
    byte_reader in{payload};
    status_message m;
    m.id = in.u32();
    m.result = static_cast<std::int32_t>(in.u32());
    m.flags = in.u8();
    m.mode = in.u8();
    m.page = static_cast<std::int32_t>(in.u32());
    m.prompt = in.text();
    m.question = in.text();
    if (!in.complete()) return std::nullopt;
    return m;
}

}  // namespace ravo::protocol

#endif
