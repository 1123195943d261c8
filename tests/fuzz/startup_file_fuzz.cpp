// SPDX-License-Identifier: Apache-2.0
// Surface: a whole start-up file, checked and then replayed by a relay on its Linux platform, on which two interfaces
// are there and all others are not.
//
// Contract: whatever the bytes, each fault is one line that names the file and a line of it, in order, and the check
// finds no line that the replay does not. What is in force then is written as a configuration in which no line fails,
// and which, replayed over nothing and over itself, is written as the same text again.
//
// The sockets are the fuzzer's own, and lead nowhere.

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "base/owners.h"
#include "configuration/configuration.h"
#include "osal.h"
#include "pieces.h"
#include "process/frame.h"
#include "ravo_cli.h"
#include "ravo_db.h"
#include "whole_relay.h"

namespace {

using ravo::platform::descriptor;

void require(bool condition, const std::string &what) {
    if (condition) return;
    std::fprintf(stderr, "startup_file_fuzz: %s\n", what.c_str());
    std::abort();
}

// A file that is in no folder.
const std::string &file_path() {
    static const descriptor file(memfd_create("startup-config", MFD_CLOEXEC));
    static const std::string path = "/proc/self/fd/" + std::to_string(file.get());
    return path;
}

void write_file(std::string_view text) {
    const descriptor file(open(file_path().c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
    require(file && write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()), "a file");
}

bool start() {
    ravo::platform::frame_options options;
    options.startup_config = "/proc/no-such-folder/startup-config";
    ravo::platform::frame_set_options(options);
    require(!ravo::platform::log_open("/dev/null", ravo::platform::log_level_error), "no log");
    whole_relay::start();
    whole_relay::there(10, {.address = "10.0.10.1"});
    whole_relay::there(100, {.address = "10.0.100.1"});
    return true;
}

// As after a start.
void reset() {
    require(ravo::cli::run_reset() == 0, "no reset");
    trust_all = 0;
    debug_flag = 0;
}

struct replayed {
    int failed = 0;
    std::vector<std::size_t> lines = {};  // that failed
};

std::size_t line_of(const std::string &report) {
    require(report.starts_with(file_path() + ":"), "a fault that does not name its file: " + report);
    require(std::none_of(report.begin(), report.end(), [](char c) { return c >= 0 && c < ' '; }),
            "a fault with control characters");
    return std::strtoul(report.c_str() + file_path().size() + 1, nullptr, 10);
}

replayed replay(bool check_only) {
    replayed out;
    std::size_t commands = 0;
    out.failed = ravo::cli::replay_file(
        file_path(), /*optional=*/false, check_only,
        [&](const std::string &report) { out.lines.push_back(line_of(report)); }, &commands);
    require(out.failed == static_cast<int>(out.lines.size()), "a fault that is not told");
    require(std::is_sorted(out.lines.begin(), out.lines.end()), "faults out of order");
    require(out.lines.empty() || out.lines.front() >= 1, "a fault in no line");
    require(out.lines.size() <= commands, "more faults than commands");
    return out;
}

void check_written(const std::string &text, const char *over) {
    write_file(text);
    const replayed again = replay(/*check_only=*/false);
    require(again.failed == 0, std::string("a line of our own fails, over ") + over + ":\n" + text);
    const std::string written = ravo::cli::running_configuration();
    require(written == text, std::string("written otherwise, over ") + over + ":\n" + text + "----\n" + written);
}

}  // namespace

// ---- The sockets ----

int osal_socket(int, int, int) {
    return eventfd(0, EFD_CLOEXEC);
}
int osal_bind(int, const sockaddr *, socklen_t) {
    return 0;
}
int osal_setsockopt(int, int, int, const void *, socklen_t) {
    return 0;
}
int osal_close(int fd) {
    return close(fd);
}
ssize_t osal_recvfrom(int, void *, std::size_t, int, sockaddr *, socklen_t *) {
    errno = EAGAIN;
    return -1;
}
void osal_gather(int, osal_refused) {}
ssize_t osal_recvmsg(int, msghdr *, int) {
    errno = EAGAIN;
    return -1;
}
ssize_t osal_sendto(int, const void *, std::size_t size, int, const sockaddr *, socklen_t) {
    return static_cast<ssize_t>(size);
}
ssize_t osal_sendmsg(int, const msghdr *, int) {
    return 1;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static const bool started = start();
    const std::string_view input(reinterpret_cast<const char *>(data), size);
    // A file that replaces the configuration by another file's is that file's affair.
    if (!started || input.find("repl") != std::string_view::npos) return 0;
    reset();
    write_file(input);
    const replayed checked = replay(/*check_only=*/true);
    reset();
    const replayed done = replay(/*check_only=*/false);
    require(std::includes(done.lines.begin(), done.lines.end(), checked.lines.begin(), checked.lines.end()),
            "a line that fails when it is checked alone");
    const std::string text = ravo::cli::running_configuration();
    check_written(text, "itself");
    reset();
    check_written(text, "nothing");
    return 0;
}

// Lines are changed as lines, and some are known commands.
extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t *data, std::size_t size, std::size_t max_size,
                                               unsigned seed) {
    static const char *const known[] = {"ip dhcp relay",
                                        "no ip dhcp relay",
                                        "ip dhcp relay information option",
                                        "ip dhcp relay information trust-all",
                                        "no ip dhcp relay information trust-all",
                                        "no ip dhcp relay information check",
                                        "ip dhcp relay information policy keep",
                                        "ip dhcp relay hops 16",
                                        "ip dhcp local-relay",
                                        "ip dhcp local-relay vlan 1-20,4094",
                                        "no ip dhcp local-relay vlan 7-9",
                                        "interface vlan 10",
                                        "interface vlan10",
                                        "interface vlan 77",
                                        "interface vlan 10,20-22",
                                        " ip dhcp relay address 192.0.2.11",
                                        " no ip dhcp relay address 192.0.2.11",
                                        " ip dhcp relay information trusted",
                                        " ip dhcp relay option60 string \"b b\" partial-match address 192.0.2.14",
                                        " ip dhcp relay option61 hex 0xABC address 192.0.2.15",
                                        " no ip dhcp relay option61",
                                        "exit",
                                        "end",
                                        "!"};
    pieces::dice draw(seed);
    if (draw.one_in(6)) return LLVMFuzzerMutate(data, size, max_size);
    std::vector<pieces::bytes> row = {{}};
    for (std::size_t i = 0; i < size; ++i) {
        row.back().push_back(data[i]);
        if (data[i] == '\n') row.emplace_back();
    }
    const auto fix = [](pieces::bytes &line) {
        if (line.empty() || line.back() != '\n') line.push_back('\n');
    };
    if (draw.one_in(2)) {
        const std::string_view line = known[draw.below(std::size(known))];
        pieces::bytes fresh(line.begin(), line.end());
        fix(fresh);
        row.insert(row.begin() + static_cast<std::ptrdiff_t>(draw.below(row.size())), fresh);
    } else {
        pieces::change(row, draw, fix);
    }
    return pieces::put(row, {}, data, max_size);
}
