// SPDX-License-Identifier: Apache-2.0
// Copies wait in arrays of the form that sendmmsg(2) takes, and go out in runs of those that go over one socket. Where
// the kernel stops in a run, that copy is sent by itself, and the rest begins a new run. Refused copies are corrected
// in the books first and reported to the relay then.
#include "osal/send_batch.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "books/books.h"
#include "log/log.h"
#include "log/log_subject.h"
#include "osal/osal_events.h"
#include "vex_init.h"

namespace ravo::platform {

namespace {

constexpr std::size_t limit = send_batch_limit;

struct waiting_copy {
    send_lanes *lanes;
    std::uint32_t destination;  // as of the lanes
    std::size_t message;        // its place among those that wait in the books
    int socket;                 // over which it is tried first
    int error;                  // errno, 0: it was sent
};

// The copies, and what the kernel needs of each, in arrays as it wants them.
std::array<waiting_copy, limit> copies;
std::array<mmsghdr, limit> headers;
std::array<iovec, limit> parts;
std::array<sockaddr_storage, limit> names;
std::array<std::array<std::uint8_t, send_batch_size>, limit> bytes;
std::size_t count = 0;
std::size_t handed_over = 0;  // of these
bool in_turn = false;
bool flushing = false;

// Copies a message into its place. Returns its length, 0 when it does not fit.
std::size_t put_together(std::span<const iovec> from, std::array<std::uint8_t, send_batch_size> &to) {
    std::size_t length = 0;
    for (const iovec &part : from) {
        if (part.iov_len > to.size() - length) return 0;
        if (part.iov_len != 0) std::memcpy(to.data() + length, part.iov_base, part.iov_len);
        length += part.iov_len;
    }
    return length;
}

std::size_t end_of_run(std::size_t begin) {
    std::size_t end = begin + 1;
    while (end < count && copies[end].socket == copies[begin].socket) ++end;
    return end;
}

// Hands over the next copies that go over one socket. Returns false when the kernel refused one, which is the next.
bool hand_over_run() {
    const auto many = static_cast<unsigned>(end_of_run(handed_over) - handed_over);
    const int sent = ::sendmmsg(copies[handed_over].socket, &headers[handed_over], many, MSG_DONTWAIT);
    if (sent > 0) handed_over += static_cast<std::size_t>(sent);
    return sent == static_cast<int>(many);
}

// Sends a copy as if it had not waited.
void send_by_itself(std::size_t at) {
    waiting_copy &copy = copies[at];
    const msghdr &message = headers[at].msg_hdr;
    const ssize_t sent = lanes_send(*copy.lanes, copy.destination, [&](int socket) {
        return ::sendto(socket, message.msg_iov->iov_base, message.msg_iov->iov_len, MSG_DONTWAIT,
                        static_cast<const sockaddr *>(message.msg_name), message.msg_namelen);
    });
    if (sent > 0) return;
    copy.error = errno;
    copy.lanes->count(copy.destination, copy.error);
}

// For the copies that were not handed over yet.
void choose_sockets() {
    for (std::size_t at = handed_over; at < count; ++at)
        copies[at].socket = lanes_socket(*copies[at].lanes, copies[at].destination);
}

// Returns whether all were sent.
bool send_all() {
    bool all = true;
    while (handed_over < count) {
        if (hand_over_run()) continue;
        send_by_itself(handed_over);
        all = all && copies[handed_over].error == 0;
        ++handed_over;
        choose_sockets();  // its destination may have another now
    }
    return all;
}

bool is_for_server(std::size_t at) {
    return names[at].ss_family == AF_INET;
}

void tell_relay(std::size_t at) {
    const waiting_copy &copy = copies[at];
    copy.lanes->refused(copy.lanes->common, static_cast<const sockaddr *>(headers[at].msg_hdr.msg_name), copy.error);
}

// Books first, so that the lines that follow bear the outcome.
void tell_of_refused() {
    for (std::size_t at = 0; at < count; ++at)
        if (copies[at].error != 0)
            books_copy_refused(copies[at].message, is_for_server(at) ? copies[at].destination : 0);
    for (std::size_t at = 0; at < count; ++at)
        if (copies[at].error != 0) books_take_up(copies[at].message, [at] { tell_relay(at); });
}

}  // namespace

void batch_open() {
    for (std::size_t at = 0; at < limit; ++at) {
        parts[at].iov_base = bytes[at].data();
        headers[at].msg_hdr = {.msg_name = &names[at],
                               .msg_namelen = 0,
                               .msg_iov = &parts[at],
                               .msg_iovlen = 1,
                               .msg_control = nullptr,
                               .msg_controllen = 0,
                               .msg_flags = 0};
    }
    books_on_wait(batch_flush);
    log_before_line(batch_flush);
}

void batch_begin() {
    in_turn = true;
}

void batch_end() {
    in_turn = false;
    batch_flush();
}

bool batch_takes(const send_lanes &lanes) {
    return in_turn && lanes.refused != nullptr && !vex_prints(log_level_trace) && books_may_wait();
}

ssize_t batch_add(send_lanes &lanes, std::uint32_t destination, std::span<const iovec> from, const sockaddr *to,
                  socklen_t to_length) {
    if (count == limit) batch_flush();
    const std::size_t length = put_together(from, bytes[count]);
    if (length == 0) return 0;
    std::memcpy(&names[count], to, to_length);
    parts[count].iov_len = length;
    headers[count].msg_hdr.msg_namelen = to_length;
    copies[count] = {.lanes = &lanes,
                     .destination = destination,
                     .message = books_wait(),
                     .socket = lanes_socket(lanes, destination),
                     .error = 0};
    ++count;
    return static_cast<ssize_t>(length);
}

void batch_flush() {
    if (count == 0 || flushing) return;
    flushing = true;
    if (!send_all()) tell_of_refused();
    count = 0;
    handed_over = 0;
    flushing = false;
    books_enter_waiting();
}

// What was handed over already is not sent again; the one that is on its way just now may be.
void sends_hand_over() {
    while (handed_over < count)
        if (!hand_over_run()) ++handed_over;
    if (!std::exchange(flushing, true)) books_enter_waiting();
}

}  // namespace ravo::platform
