// SPDX-License-Identifier: Apache-2.0
// The child says a letter through a socket whose number it finds in its environment: its exit status alone would not
// distinguish a report of a fault, which ends with 1, from a start that failed. What it wants to have kept goes the
// same way.
#include "process/supervisor.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>
#include <utility>

#include "base/descriptor_message.h"
#include "base/owners.h"
#include "process/init_system.h"
#include "process/kept_descriptors.h"

namespace ravo::platform {

namespace {

using std::chrono::milliseconds;
using clock = std::chrono::steady_clock;

constexpr const char *ear_name = "RAVO_SUPERVISOR";
constexpr char is_ready = 'r', crashes = 'c';
constexpr int failed_status = 1, signal_status = 128, no_exec_status = 127;
constexpr int configuration_status = 78;      // of a start that ends at a file
constexpr std::size_t most_with_message = 4;  // descriptors; one is wanted

// ---- The child's side ----

int ear = -1;  // of the supervisor; -1: there is none

// What else the variable may name is none of ours to write to.
bool is_ear(int fd) {
    int type = 0;
    socklen_t length = sizeof type;
    return fd > STDERR_FILENO && getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length) == 0 && type == SOCK_SEQPACKET;
}

void say(char letter) {
    if (ear >= 0) (void)!send(ear, &letter, 1, MSG_NOSIGNAL | MSG_DONTWAIT);
}

// ---- The supervisor's side ----

struct child {
    pid_t pid = -1;
    descriptor said;      // what it says can be read here
    bool silent = false;  // and there will be no more of it
    clock::time_point since;
    bool ready = false;
    bool crashed = false;
};

struct state {
    child now;
    sigset_t awaited{}, before{};
    descriptor signals;  // those that are awaited
    kept_descriptors kept;
    bool stopping = false;
    bool served = false;  // some child was ready
    unsigned deaths = 0;  // at once, in a row
};

[[noreturn]] void become(const std::string &program, const std::vector<std::string> &words, int its_ear, pid_t parent,
                         const state &s) {
    (void)prctl(PR_SET_PDEATHSIG, SIGTERM, 0, 0, 0);
    if (getppid() != parent) _exit(failed_status);
    const int place = s.kept.hand_over(its_ear);
    if (place < 0) {
        (void)dprintf(STDERR_FILENO, "ravod: what is kept cannot be handed over: %s\n", std::strerror(errno));
        _exit(failed_status);
    }
    (void)setenv(ear_name, std::to_string(place).c_str(), 1);
    std::vector<char *> arguments = {const_cast<char *>("ravod")};
    for (const std::string &word : words) arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    sigprocmask(SIG_SETMASK, &s.before, nullptr);
    execv(program.c_str(), arguments.data());
    (void)dprintf(STDERR_FILENO, "ravod: %s cannot be started: %s\n", program.c_str(), std::strerror(errno));
    _exit(no_exec_status);
}

// Returns 0 or the reason.
int start(state &s, const std::string &program, const std::vector<std::string> &words) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0) return errno;
    s.now = {.pid = -1, .said = descriptor(ends[0]), .since = clock::now()};
    const descriptor theirs(ends[1]);
    const pid_t parent = getpid();
    s.now.pid = fork();
    if (s.now.pid == 0) become(program, words, theirs.get(), parent, s);
    return s.now.pid > 0 ? 0 : errno;
}

// One thing that the child says: a letter, or what is to be kept. Returns false when there is none.
bool hear(state &s) {
    std::array<char, 512> text;
    descriptor_room<most_with_message> room;
    iovec bytes{.iov_base = text.data(), .iov_len = text.size()};
    msghdr message{};
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    use_room(message, room);
    const ssize_t size = recvmsg(s.now.said.get(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (size < 0) return errno == EINTR;
    std::vector<descriptor> came = take_descriptors(message);
    s.now.silent = size == 0;
    if (size <= 0) return false;
    s.now.ready = s.now.ready || text[0] == is_ready;
    s.now.crashed = s.now.crashed || text[0] == crashes;
    s.kept.take(std::string_view(text.data(), static_cast<std::size_t>(size)), std::move(came));
    return true;
}

void listen(state &s) {
    while (s.now.said && !s.now.silent && hear(s)) {
    }
}

// A child that has no handler yet would be ended by a hangup; what it is to read again it reads then anyway.
void pass_on(state &s, int signal) {
    listen(s);
    if (signal == SIGHUP && !s.now.ready) return;
    s.stopping = s.stopping || signal != SIGHUP;
    if (s.now.pid > 0) (void)kill(s.now.pid, signal);
}

// Takes whoever ended, also what others left to us; returns whether the daemon did, and its wait status.
bool collect(state &s, int *status) {
    bool ended = false;
    for (int one = 0;;) {
        const pid_t pid = waitpid(-1, &one, WNOHANG);
        if (pid < 0 && errno == EINTR) continue;
        if (pid <= 0) return ended;
        if (pid != s.now.pid) continue;
        *status = one;
        ended = true;
    }
}

// The next signal; 0: none.
int next_signal(const state &s) {
    signalfd_siginfo info{};
    return read(s.signals.get(), &info, sizeof info) == sizeof info ? static_cast<int>(info.ssi_signo) : 0;
}

int wait_for_end(state &s) {
    for (int status = 0;;) {
        std::array<pollfd, 2> heard{{{.fd = s.signals.get(), .events = POLLIN, .revents = 0},
                                     {.fd = s.now.silent ? -1 : s.now.said.get(), .events = POLLIN, .revents = 0}}};
        (void)poll(heard.data(), heard.size(), -1);  // who cannot wait looks
        listen(s);
        for (int signal; (signal = next_signal(s)) != 0;)
            if (signal != SIGCHLD) pass_on(s, signal);
        if (collect(s, &status)) return status;
    }
}

// Returns false when a signal to stop came meanwhile, or before.
bool wait_before_start(state &s, milliseconds time) {
    const clock::time_point end = clock::now() + time;
    while (!s.stopping) {
        const auto until = std::chrono::duration_cast<std::chrono::nanoseconds>(end - clock::now()).count();
        const auto left = std::max<std::int64_t>(until, 0);
        const timespec wait{static_cast<time_t>(left / 1000000000), static_cast<long>(left % 1000000000)};
        const int signal = sigtimedwait(&s.awaited, nullptr, &wait);
        s.stopping = signal == SIGTERM || signal == SIGINT;
        if (signal < 0 && left == 0) return true;
    }
    return false;
}

int exit_status(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : signal_status + WTERMSIG(status);
}

// What could be started once will be so again, when the system has room or whatever it was is over; unless it says that
// its configuration has to be mended first.
bool is_crash(const state &s, int status) {
    if (!WIFEXITED(status)) return true;
    const int code = WEXITSTATUS(status);
    return code != 0 && (s.now.ready || s.now.crashed || (s.served && code != configuration_status));
}

std::string ending(int status) {
    if (WIFEXITED(status)) return "status " + std::to_string(WEXITSTATUS(status));
    const char *name = sigabbrev_np(WTERMSIG(status));
    return name == nullptr ? "signal " + std::to_string(WTERMSIG(status)) : std::string("SIG") + name;
}

std::string in_time(milliseconds wait) {
    return wait.count() == 0 ? "" : " in " + std::to_string(wait.count()) + " ms";
}

std::string line_of(int status, milliseconds life, milliseconds wait) {
    return "ravod: ended with " + ending(status) + " after " + std::to_string(life.count()) + " ms, started again" +
           in_time(wait);
}

// Returns 0 or the reason.
int await_signals(state &s) {
    (void)std::signal(SIGCHLD, SIG_DFL);  // who started us may not have wanted to hear of his
    sigemptyset(&s.awaited);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGCHLD}) sigaddset(&s.awaited, signal);
    sigprocmask(SIG_BLOCK, &s.awaited, &s.before);
    s.signals.reset(signalfd(-1, &s.awaited, SFD_CLOEXEC | SFD_NONBLOCK));
    return s.signals ? 0 : errno;
}

}  // namespace

milliseconds supervisor_wait(unsigned deaths) {
    if (deaths <= supervisor_free_starts) return milliseconds(0);
    const unsigned doublings = std::min(deaths - supervisor_free_starts - 1, 16U);
    return std::min(supervisor_first_wait * (1U << doublings), supervisor_longest_wait);
}

int supervise(const std::string &program, const std::vector<std::string> &words,
              const std::function<void(const std::string &line)> &report, milliseconds short_life) {
    state s;
    if (const int failed = await_signals(s); failed != 0) {
        report(std::string("ravod: its supervisor cannot wait for signals: ") + std::strerror(failed));
        return failed_status;
    }
    for (;;) {
        if (const int failed = start(s, program, words); failed != 0) {
            const std::string line =
                std::string("ravod: cannot be started by its supervisor: ") + std::strerror(failed);
            s.now.pid = -1;
            const milliseconds wait = supervisor_wait(supervisor_free_starts + ++s.deaths);
            report(s.served ? line + ", tried again" + in_time(wait) : line);
            if (!s.served || !wait_before_start(s, wait)) return failed_status;
            continue;
        }
        const int status = wait_for_end(s);
        listen(s);
        s.served = s.served || s.now.ready;
        if (s.stopping || !is_crash(s, status)) return exit_status(status);
        const auto life = std::chrono::duration_cast<milliseconds>(clock::now() - s.now.since);
        s.now.pid = -1;
        s.deaths = life < short_life ? s.deaths + 1 : 0;
        const milliseconds wait = supervisor_wait(s.deaths);
        report(line_of(status, life, wait));
        if (!wait_before_start(s, wait)) return exit_status(status);
    }
}

void supervised_begins() {
    const char *text = std::getenv(ear_name);
    int fd = -1;
    if (text != nullptr) (void)std::from_chars(text, text + std::strlen(text), fd);
    if (!is_ear(fd)) return;
    ear = fd;
    (void)fcntl(fd, F_SETFD, FD_CLOEXEC);
    (void)unsetenv(ear_name);
    init_system_stores_at(fd);
}

void supervised_is_ready() {
    say(is_ready);
}

void supervised_crashes() {
    say(crashes);
}

}  // namespace ravo::platform
