// SPDX-License-Identifier: Apache-2.0
// The thread sleeps in a read of an event counter, which the event loop raises when it has put something and the thread
// is not awake. It takes what there is, puts text together up to what a pipe takes in one piece, so that lines of
// others on the same pipe do not come in between, and writes it.
//
// A process that dies by an abort would take with it what has not been written yet, and with it the reason. So the
// signal waits a little for the thread, then does what it does. At an ordinary exit an exit handler does the same.
#include "log/log_writer.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "base/threads.h"

namespace ravo::platform {

namespace {

using namespace std::chrono_literals;

constexpr auto last_wait = 1s;  // for what is left at the end
constexpr timespec settle_step{0, 20000};

struct writer {
    log_queue queue;
    writer_target target;
    int wake = -1;                      // event counter
    std::atomic<bool> sleeping{false};  // it has to be woken
    std::atomic<bool> busy{false};      // something that was taken is not written yet
    std::atomic<bool> stopping{false};
    std::atomic<bool> ended{false};
    std::atomic<bool> left_behind{false};  // nobody wants what it still has
    bool fault_told = false;

    std::array<char, PIPE_BUF> text;  // put together, not written yet
    std::size_t length = 0;

    ~writer() {
        if (target.owns_fd && target.fd >= 0) close(target.fd);
        if (wake >= 0) close(wake);
    }
};

// The thread has one of the two owners, so that one that is stuck keeps what it works with.
std::shared_ptr<writer> running;
bool stuck = false;  // it did not settle in time; no more waiting until it has written everything

void flush(writer &w) {
    if (w.left_behind.load()) w.length = 0;
    if (w.length == 0) return;
    const int failed = log_write_stream(w.target.fd, {w.text.data(), w.length});
    w.length = 0;
    if (failed == 0 || w.target.path.empty() || w.fault_told) return;
    w.fault_told = true;
    log_tell_file_fault(w.target.path.c_str(), failed);
}

void gather(writer &w, std::string_view text) {
    if (w.length + text.size() > w.text.size()) flush(w);
    while (text.size() > w.text.size()) {
        std::copy_n(text.data(), w.text.size(), w.text.data());
        w.length = w.text.size();
        text.remove_prefix(w.length);
        flush(w);
    }
    std::copy_n(text.data(), text.size(), w.text.data() + w.length);
    w.length += text.size();
}

void go_on_elsewhere(writer &w, int fd) {
    flush(w);
    if (w.target.owns_fd) close(w.target.fd);
    w.target.fd = fd;
    w.target.owns_fd = true;
    w.fault_told = false;
}

// While the process goes on, what is full may take its time: the queue holds the rest.
bool has_time(const void *whose) {
    return !static_cast<const writer *>(whose)->stopping.load();
}

void serve(writer &w, const queue_entry &entry, std::string_view text) {
    switch (entry.what) {
        case queued::text:
            return gather(w, text);
        case queued::record:
            return datagram_send(*w.target.datagram,
                                 {entry.severity, text.substr(0, entry.text_length), text.substr(entry.text_length)},
                                 has_time, &w);
        case queued::new_stream:
            return go_on_elsewhere(w, entry.fd);
    }
}

// Writes all there is. Busy is said before the first entry is taken: whoever finds the queue empty then knows.
void drain(writer &w) {
    queue_entry entry;
    std::array<char, queue_text_room> text;
    w.busy.store(true);
    while (!w.left_behind.load() && log_queue_take(w.queue, &entry, text.data()))
        serve(w, entry, {text.data(), entry.length});
    flush(w);
    w.busy.store(false);
}

void run(const std::shared_ptr<writer> &w) {
    while (!w->left_behind.load() && (!w->stopping.load() || !log_queue_empty(w->queue))) {
        drain(*w);
        w->sleeping.store(true);
        std::uint64_t times = 0;
        if (log_queue_empty(w->queue) && !w->stopping.load()) (void)!read(w->wake, &times, sizeof times);
        w->sleeping.store(false);
    }
    w->ended.store(true);
}

void wake(writer &w) {
    constexpr std::uint64_t once = 1;
    if (!w.sleeping.exchange(false)) return;
    ssize_t written;
    do written = write(w.wake, &once, sizeof once);
    while (written < 0 && errno == EINTR);
    if (written < 0) w.sleeping.store(true);  // whoever puts the next line tries again
}

bool is_settled(const writer &w) {
    return log_queue_empty(w.queue) && !w.busy.load();
}

// Only what a signal handler may call.
bool wait_until_settled(const writer &w, std::chrono::nanoseconds limit) {
    timespec begin{}, now{};
    clock_gettime(CLOCK_MONOTONIC, &begin);
    while (!is_settled(w)) {
        nanosleep(&settle_step, nullptr);
        clock_gettime(CLOCK_MONOTONIC, &now);
        if ((now.tv_sec - begin.tv_sec) * 1000000000LL + (now.tv_nsec - begin.tv_nsec) > limit.count()) return false;
    }
    return true;
}

void on_abort(int number) {
    if (log_writer_running()) (void)wait_until_settled(*running, last_wait);  // what is left then is lost
    // The handler was for once: the signal now does what it always does, at the place that it interrupted.
    (void)raise(number);
}

void at_exit() {
    if (log_writer_running()) (void)wait_until_settled(*running, last_wait);  // likewise
}

// The thread exists in the parent alone; what it had taken in hand is the parent's to write.
void forget_in_child() {
    static std::shared_ptr<writer> left_behind;
    left_behind = std::exchange(running, nullptr);
    stuck = false;
}

void prepare_for_the_end() {
    static bool done = false;
    if (std::exchange(done, true)) return;
    (void)std::atexit(at_exit);  // without room for one more handler the last lines may be lost, and nothing else
    (void)pthread_atfork(nullptr, nullptr, forget_in_child);
}

void catch_abort(bool caught) {
    struct sigaction action {};
    action.sa_handler = caught ? on_abort : SIG_DFL;
    action.sa_flags = caught ? static_cast<int>(SA_RESETHAND) : 0;
    sigaction(SIGABRT, &action, nullptr);
}

}  // namespace

bool log_writer_start(const writer_target &target) {
    auto made = std::make_shared_for_overwrite<writer>();  // a queue that nobody uses takes no memory
    made->target = target;
    made->wake = eventfd(0, EFD_CLOEXEC);
    if (made->wake < 0 || start_thread([made] { run(made); }) != 0) {
        made->target.owns_fd = false;  // it stays the caller's
        return false;
    }
    running = std::move(made);
    stuck = false;
    prepare_for_the_end();
    catch_abort(true);
    return true;
}

bool log_writer_running() {
    return running != nullptr;
}

bool log_writer_put(const queue_entry &entry, std::string_view text, bool urgent) {
    const bool put = log_queue_put(running->queue, entry, text, urgent);
    wake(*running);
    return put;
}

bool log_writer_has_room() {
    return log_queue_used(running->queue) < log_queue::room / 4 * 3;
}

bool log_writer_settle(std::chrono::microseconds limit, bool patient) {
    if (!running || is_settled(*running)) {
        stuck = false;
        return true;
    }
    if (stuck && !patient) return false;
    stuck = !wait_until_settled(*running, limit);
    return !stuck;
}

void log_writer_stop() {
    if (!running) return;
    catch_abort(false);
    running->stopping.store(true);
    running->sleeping.store(true);
    wake(*running);
    if (wait_until_settled(*running, last_wait))
        while (!running->ended.load()) nanosleep(&settle_step, nullptr);
    running->left_behind.store(true);
    running.reset();
}

int log_write_stream(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(fd, text.data(), text.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0 && errno == EAGAIN) {
            // Somebody who shares the stream has made it one that does not block.
            pollfd room{fd, POLLOUT, 0};
            (void)poll(&room, 1, -1);
            continue;
        }
        if (written < 0) return errno;
        text.remove_prefix(static_cast<std::size_t>(written));
    }
    return 0;
}

void log_tell_file_fault(const char *path, int error) {
    char line[512];
    const int length =
        std::snprintf(line, sizeof line, "ravod: %s: cannot write the log: %s\n", path, strerrordesc_np(error));
    const std::size_t shown = std::min(static_cast<std::size_t>(std::max(length, 0)), sizeof line - 1);
    // Standard error is the last place to turn to; when it is gone too there is nobody left to tell.
    (void)log_write_stream(STDERR_FILENO, {line, shown});
}

}  // namespace ravo::platform
