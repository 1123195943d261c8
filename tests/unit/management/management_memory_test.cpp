// SPDX-License-Identifier: Apache-2.0
// Memory that runs out, at every place in turn: the session that needs it ends, or says so, and all else goes on.
#include <cstdlib>
#include <new>

#include "management_client.h"

namespace {

thread_local long allowed = -1;  // allocations before one fails, -1: none does

void *allocate(std::size_t size) {
    if (allowed == 0) {
        allowed = -1;
        return nullptr;
    }
    if (allowed > 0) --allowed;
    return std::malloc(size == 0 ? 1 : size);
}

}  // namespace

void *operator new(std::size_t size) {
    if (void *memory = allocate(size)) return memory;
    throw std::bad_alloc();
}
void *operator new(std::size_t size, const std::nothrow_t &) noexcept {
    return allocate(size);
}
void operator delete(void *memory) noexcept {
    std::free(memory);
}
void operator delete(void *memory, std::size_t) noexcept {
    std::free(memory);
}

namespace {

// Lets the daemon work with one allocation that fails. Returns false when none was left to fail.
bool serve_with_fault(long at, client &victim) {
    const auto end = steady::now() + limit;
    frame got{};
    bool done = false, failed = false;
    allowed = at;
    while (!done && steady::now() < end) {
        event_base_loop(platform::loop_base(), EVLOOP_ONCE | EVLOOP_NONBLOCK);
        const long left = std::exchange(allowed, -1);
        failed = failed || left < 0;
        victim.read_some();
        while (victim.take(&got))
            done = done || got.type == frame_type::status || got.type == frame_type::welcome ||
                   got.type == frame_type::refused;
        done = done || victim.ended;
        if (!failed) allowed = left;
    }
    allowed = -1;
    EXPECT_TRUE(done) << "the client waits for ever";
    return failed;
}

struct ManagementMemory : Management {
    // Fails each allocation of what a line needs in turn, each in a session of its own.
    void try_line(const std::string &line) const {
        SCOPED_TRACE(line);
        client other(path);
        greet(other);
        bool failed = true;
        for (long at = 0; failed; ++at) {
            ASSERT_LT(at, 5000);
            client c(path);
            greet(c);
            c.run(line);
            failed = serve_with_fault(at, c);
            c.leave();
            ASSERT_TRUE(serve_until([] { return management_sessions() == 1; }));
            expect_served(other);
        }
    }
};

TEST_F(ManagementMemory, ASessionThatCannotBeginHurtsNobody) {
    open();
    client other(path);
    greet(other);
    bool failed = true;
    for (long at = 0; failed; ++at) {
        SCOPED_TRACE(at);
        client c(path);
        c.hello();
        failed = serve_with_fault(at, c);
        c.leave();
        ASSERT_TRUE(serve_until([] { return management_sessions() == 1; }));
        expect_served(other);
    }
}

TEST_F(ManagementMemory, ACommandThatFailsForItEndsItsSession) {
    open();
    try_line("show users | include root|x | count");
    try_line("show users | json");
}

TEST_F(ManagementMemory, AnInvalidLineAndAChangeOfModeAreNoWorse) {
    open();
    try_line("show nonsense");
    try_line("configure terminal");
    try_line("show test big | include (");
}

}  // namespace
