// SPDX-License-Identifier: Apache-2.0
// A flooding sender: one frame again and again, as fast as one core sends or at a rate, with random bytes where asked.
//
//   flood NETNS DEVICE RATE SECONDS [OFFSET:LENGTH ...] < FRAME
//
// NETNS is a path. RATE 0 is as fast as it goes; SECONDS 0 is until SIGTERM. The frame is read from standard input as
// it shall be on the wire; the bytes at each OFFSET are random in every frame that is sent. Checksums are the frame's
// own: with random bytes it needs a UDP checksum of 0. Prints "sending" with the first frame and a line of JSON at the
// end: frames sent, seconds of the clock and of the processor.
#include <fcntl.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sched.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using steady = std::chrono::steady_clock;

constexpr unsigned batch = 64;
constexpr std::size_t room = 2048;

volatile std::sig_atomic_t ended = 0;

struct random_bytes {
    std::size_t offset;
    std::size_t length;
};

[[noreturn]] void fail(const std::string &what) {
    std::fprintf(stderr, "flood: %s: %s\n", what.c_str(), std::strerror(errno));
    std::exit(1);
}

void on_end(int) {
    ended = 1;
}

int open_device(const char *netns, const char *device) {
    const int space = open(netns, O_RDONLY | O_CLOEXEC);
    if (space < 0 || setns(space, CLONE_NEWNET) != 0) fail(netns);
    close(space);
    const int fd = socket(AF_PACKET, SOCK_RAW, 0);
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_ifindex = static_cast<int>(if_nametoindex(device));
    const int on = 1;
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) fail(device);
    // A virtual cable has no queue that would need a discipline.
    if (setsockopt(fd, SOL_PACKET, PACKET_QDISC_BYPASS, &on, sizeof on) != 0) fail("PACKET_QDISC_BYPASS");
    return fd;
}

std::size_t read_frame(std::uint8_t *frame) {
    std::size_t size = 0;
    for (ssize_t got; (got = read(0, frame + size, room - size)) > 0;) size += static_cast<std::size_t>(got);
    if (size < 14 || size == room) fail("no frame on standard input");
    return size;
}

std::vector<random_bytes> read_places(int argc, char **argv, std::size_t size) {
    std::vector<random_bytes> places;
    for (int i = 5; i < argc; ++i) {
        random_bytes place{};
        if (std::sscanf(argv[i], "%zu:%zu", &place.offset, &place.length) != 2 || place.offset + place.length > size)
            fail(argv[i]);
        places.push_back(place);
    }
    return places;
}

// A generator that costs next to nothing (xorshift).
std::uint64_t next_random() {
    static std::uint64_t state = 0x9E3779B97F4A7C15U ^ static_cast<std::uint64_t>(getpid());
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    return state;
}

void fill(std::uint8_t *frame, const std::vector<random_bytes> &places) {
    for (const random_bytes &place : places)
        for (std::size_t done = 0; done < place.length; done += sizeof(std::uint64_t)) {
            const std::uint64_t value = next_random();
            std::memcpy(frame + place.offset + done, &value, std::min(sizeof value, place.length - done));
        }
}

struct frames {
    std::uint8_t bytes[batch][room];
    iovec parts[batch];
    mmsghdr headers[batch];
};
frames out;

std::uint64_t send_all(int fd, unsigned count) {
    const int sent = sendmmsg(fd, out.headers, count, 0);
    if (sent < 0 && errno != EINTR && errno != ENOBUFS) fail("sendmmsg");
    return sent < 0 ? 0 : static_cast<std::uint64_t>(sent);
}

double processor_seconds() {
    timespec used{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 5) {
        std::fputs("usage: flood NETNS DEVICE RATE SECONDS [OFFSET:LENGTH ...] < FRAME\n", stderr);
        return 2;
    }
    const double rate = std::atof(argv[3]);
    const double seconds = std::atof(argv[4]);
    const std::size_t size = read_frame(out.bytes[0]);
    const std::vector<random_bytes> places = read_places(argc, argv, size);
    for (unsigned i = 0; i < batch; ++i) {
        std::memcpy(out.bytes[i], out.bytes[0], size);
        out.parts[i] = {out.bytes[i], size};
        out.headers[i].msg_hdr.msg_iov = &out.parts[i];
        out.headers[i].msg_hdr.msg_iovlen = 1;
    }
    const int fd = open_device(argv[1], argv[2]);
    std::signal(SIGTERM, on_end);
    // A slow flood goes out in small batches, so that it is even.
    const unsigned at_once = rate == 0 ? batch : std::clamp(static_cast<unsigned>(rate / 1000), 1U, batch);

    const auto begin = steady::now();
    const auto since = [&] { return std::chrono::duration<double>(steady::now() - begin).count(); };
    std::uint64_t sent = 0;
    while (ended == 0 && (seconds == 0 || since() < seconds)) {
        for (unsigned i = 0; i < at_once; ++i) fill(out.bytes[i], places);
        sent += send_all(fd, at_once);
        if (sent > 0 && sent <= at_once) {
            std::puts("sending");
            std::fflush(stdout);
        }
        if (rate == 0) continue;
        const double due = static_cast<double>(sent) / rate;
        if (due > since()) std::this_thread::sleep_for(std::chrono::duration<double>(due - since()));
    }
    std::printf("{\"sent\": %llu, \"seconds\": %.6f, \"processor\": %.6f}\n", static_cast<unsigned long long>(sent),
                since(), processor_seconds());
    return 0;
}
