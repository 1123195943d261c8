// SPDX-License-Identifier: Apache-2.0
// Surface: the files that a daemon leaves to the next one, with anything in them: the black box, the table of open
// transactions, and the book of crashes. The input's first byte says which; the rest is the file, of the black box
// behind a byte, and of the table either that or its entries, each of which says its place and whether it is whole.
//
// Contract: whatever is in a file, nothing outside it is read and the start goes on. What is taken over lies within its
// bounds, and a file that was read once holds nothing a second time. A name that the book of crashes has leads out of
// no folder.

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "base/clock.h"
#include "base/owners.h"
#include "books/black_box.h"
#include "books/crash_book.h"
#include "osal/kept_transactions.h"
#include "port_number.h"

namespace {

using namespace ravo::platform;
using input = std::span<const std::uint8_t>;

void require(bool condition, const char *what) {
    if (condition) return;
    std::fprintf(stderr, "left_behind_fuzz: %s\n", what);
    std::abort();
}

// A folder in memory, which goes with the process.
struct folder {
    std::string path;
    folder() {
        char name[] = "/dev/shm/ravo-fuzz-XXXXXX";
        require(mkdtemp(name) != nullptr, "no folder");
        path = name;
    }
    folder(const folder &) = delete;
    folder &operator=(const folder &) = delete;
    ~folder() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
};

const std::string &place() {
    static const folder here;
    return here.path;
}

void put_file(const std::string &path, input content) {
    const descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    require(file && write(file.get(), content.data(), content.size()) == static_cast<ssize_t>(content.size()),
            "a file");
}

// ---- The black box ----

constexpr std::size_t holds_at = 48, hold_size = 16, hold_until = 8;

// The file's first byte says whether its holds are of now or thereabouts, which none is by chance.
std::vector<std::uint8_t> made_box(input content) {
    std::vector<std::uint8_t> box(content.begin(), content.end());
    if (box.empty()) return box;
    const bool now = (box.front() & 1) != 0;
    box.erase(box.begin());
    timespec time{};
    (void)clock_gettime(CLOCK_BOOTTIME, &time);
    for (std::size_t at = holds_at + hold_until; now && at + 8 <= box.size() && at < holds_at + 64 * hold_size;
         at += hold_size) {
        const std::int64_t until = time.tv_sec + (box[at] << 8 | box[at + 1]) % 1300 - 650;
        std::memcpy(&box[at], &until, sizeof until);
    }
    return box;
}

void check_box(input content) {
    const std::string path = place() + "/box";
    put_file(path, made_box(content));
    black_box_crash crash;
    require(!black_box_open(path, &crash), "no box");
    require(crash.happened == !crash.frame.empty(), "a message without a crash");
    require(crash.frame.size() <= black_box_frame_size, "a frame without end");
    require(crash.cause <= 64 || crash.cause == black_box_exit, "a cause that is none");
    require(crash.held_seconds <= black_box_longest_hold, "a port held too long");
    require(crash.held_seconds == 0 || black_box_holds(crash.entry.port_ifindex), "a port that is not held");
    if (crash.happened) require(!black_box_text(crash).empty() && !black_box_cause(crash.cause).empty(), "no words");
    require(black_box_seconds_left(crash.entry.port_ifindex) <= black_box_longest_hold, "held without end");
    black_box_close();
    black_box_crash again;
    require(!black_box_open(path, &again) && !again.happened, "a crash twice");
    black_box_release();
    require(!black_box_holds(crash.entry.port_ifindex), "held in spite of a release");
    black_box_close();
    if (!crash.happened) return;
    (void)crash_book_open(place());
    (void)crash_book_enter(crash);
    require(!crash_book_all().empty() && crash_book_all().size() <= crash_book_size, "no crash in the book");
    require(!crash_book_clear() && crash_book_all().empty(), "a book that is not cleared");
}

// ---- Open transactions ----

constexpr std::size_t table_head = 32, entry_size = 32, said_size = 3 + entry_size;

struct entry {
    std::uint32_t check, number, xid, port, seconds, unused;
    std::uint64_t since;
};
static_assert(sizeof(entry) == entry_size);

// Writes one entry as the daemon does, takes it out again, and learns the checksum so.
void put_whole(const entry &e) {
    kept_transactions_put(e.number, {.xid = e.xid, .port = e.port, .seconds = e.seconds, .since = e.since});
}

// Each piece is a place (two bytes), what to do with it, and an entry.
void fill_table(const std::string &path, input pieces) {
    std::vector<kept_transaction> none;
    require(!kept_transactions_open(path, &none), "no table");
    const descriptor file(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    const std::uint64_t now = clock_coarse_ms();
    for (; pieces.size() >= said_size; pieces = pieces.subspan(said_size)) {
        entry e{};
        std::memcpy(&e, pieces.data() + 3, sizeof e);
        const auto at = static_cast<off_t>(table_head + (pieces[0] << 8 | pieces[1]) * entry_size);
        if ((pieces[2] & 2) != 0) e.since = now - e.since % 4000000;
        if ((pieces[2] & 4) != 0) e.seconds %= 3700;
        if ((pieces[2] & 8) != 0) e.port = 5121 + e.port % 90;
        if ((pieces[2] & 1) != 0)
            put_whole(e);
        else
            require(pwrite(file.get(), &e, sizeof e, at) == sizeof e, "an entry");
    }
    kept_transactions_close();
}

void check_found(const std::vector<kept_transaction> &found) {
    const std::uint64_t now = clock_coarse_ms();
    std::uint64_t before = 0;
    for (const kept_transaction &each : found) {
        require(each.port == 0 || port_number_is_port(each.port) != 0, "a port that is none");
        require(each.seconds >= 1 && each.seconds <= 3600, "remembered for ever, or not at all");
        require(each.since <= now && each.since >= before, "out of order");
        before = each.since;
    }
}

void check_table(input content) {
    const std::string path = place() + "/transactions";
    (void)unlink(path.c_str());
    const bool pieces = !content.empty() && (content[0] & 1) != 0;
    if (!content.empty()) content = content.subspan(1);
    if (pieces)
        fill_table(path, content);
    else
        put_file(path, content);
    std::vector<kept_transaction> found;
    (void)kept_transactions_open(path, &found);
    check_found(found);
    kept_transactions_close();
    std::vector<kept_transaction> again;
    require(!kept_transactions_open(path, &again) && again.empty(), "transactions twice");
    kept_transactions_close();
}

// ---- The book of crashes ----

void check_book(input content) {
    put_file(place() + "/crashes", content);
    (void)crash_book_open(place());
    require(crash_book_all().size() <= crash_book_size, "a book without end");
    for (const kept_crash &each : crash_book_all()) {
        require(each.capture.find('/') == std::string::npos && each.capture.size() <= 64,
                "a name that leads elsewhere");
        require(each.vlan <= 4094, "a VLAN that is none");
        require(each.cause <= black_box_exit, "a cause that is none");
        (void)black_box_cause(each.cause);
    }
    (void)crash_book_clear();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size == 0) return 0;
    const input content(data + 1, size - 1);
    switch (data[0] % 3) {
        case 0:
            check_box(content);
            break;
        case 1:
            check_table(content);
            break;
        default:
            check_book(content);
            break;
    }
    return 0;
}
