// SPDX-License-Identifier: Apache-2.0
// Socket readers: one libevent event each. The handle the daemon holds is the reader's address; it is looked up among
// the living ones before it is used, so that a handle that was deleted already does no harm.
#include <event2/event.h>

#include <memory>
#include <new>
#include <string>
#include <unordered_map>

#include "base/loop.h"
#include "base/owners.h"
#include "books/books.h"
#include "channel/channel.h"
#include "log/log.h"
#include "osal.h"
#include "osal/osal_events.h"
#include "osal/send_batch.h"

namespace {

struct reader {
    std::string name;
    osal_read_handler handler;
    void *arg;
    ravo::platform::event_ptr event;
};

std::unordered_map<void *, std::unique_ptr<reader>> readers;
unsigned deleted = 0;  // how many were

constexpr int messages_per_wakeup = 32;  // then commands, timers and netlink get their turn

// Whether there is another message. When none waits, what was sent so far leaves before it is looked out for one.
bool find_another_message() {
    if (ravo::platform::channel_next()) return true;
    ravo::platform::batch_flush();
    return ravo::platform::channel_look_out() && ravo::platform::channel_next();
}

// The channel's handler is called for each message, as many as others can be kept waiting for, and only when there is
// one. The handler may delete its own reader: nothing of it is touched once the handler was entered. What is sent
// meanwhile leaves when no message waits, or at the end.
void serve_channel(int fd, osal_read_handler handler, void *handler_arg) {
    const unsigned deleted_before = deleted;
    ravo::platform::batch_begin();
    bool found = ravo::platform::channel_next();
    for (int served = 1; found; ++served) {
        handler(fd, handler_arg);
        ravo::platform::channel_done();
        if (deleted != deleted_before || !ravo::platform::channel_owns(fd)) break;
        found = served < messages_per_wakeup && find_another_message();
    }
    ravo::platform::batch_end();
}

void on_readable(evutil_socket_t fd, short /*what*/, void *arg) {
    const auto *self = static_cast<const reader *>(arg);
    if (ravo::platform::channel_owns(fd)) return serve_channel(fd, self->handler, self->arg);
    self->handler(fd, self->arg);
    ravo::platform::books_close();
}

std::unique_ptr<reader> make_reader(const char *name, osal_read_handler handler, int fd, int repeat, void *arg) {
    auto made = std::make_unique<reader>(reader{name == nullptr ? "" : name, handler, arg, nullptr});
    const short what = static_cast<short>(EV_READ | (repeat == 1 ? EV_PERSIST : 0));
    made->event.reset(event_new(ravo::platform::loop_base(), fd, what, on_readable, made.get()));
    if (made->event == nullptr || event_add(made->event.get(), nullptr) != 0) {
        ravo::platform::log_line(ravo::platform::log_level_error, "reader \"%s\": descriptor %d cannot be watched",
                                 made->name.c_str(), fd);
        return nullptr;
    }
    return made;
}

}  // namespace

void *OSAL_ZEBOS_Add_Read_Socket_Thread(void **handle, const char *name, osal_read_handler handler, int fd, int repeat,
                                        void *arg) {
    *handle = nullptr;
    if (fd < 0 || handler == nullptr) return nullptr;
    try {
        std::unique_ptr<reader> made = make_reader(name, handler, fd, repeat, arg);
        if (made == nullptr) return nullptr;
        void *key = made.get();
        readers.emplace(key, std::move(made));
        *handle = key;
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
    return *handle;
}

void OSAL_ZEBOS_Delete_Read_Socket_Thread(void **handle) {
    readers.erase(*handle);
    ++deleted;
    *handle = nullptr;
}

namespace ravo::platform {

void readers_free() {
    readers.clear();
}

std::size_t readers_count() {
    return readers.size();
}

}  // namespace ravo::platform
