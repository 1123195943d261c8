// SPDX-License-Identifier: Apache-2.0
// Owners of what the system and the event library hand out: each ends with its scope.
#ifndef PLATFORM_LINUX_BASE_OWNERS_H
#define PLATFORM_LINUX_BASE_OWNERS_H

#include <event2/event.h>
#include <unistd.h>

#include <memory>
#include <utility>

namespace ravo::platform {

struct event_delete {
    void operator()(struct event *e) const { event_free(e); }
};
// An event of the loop; it is removed from the loop when its owner goes.
using event_ptr = std::unique_ptr<struct event, event_delete>;

// A file descriptor, closed when its owner goes. -1: none.
class descriptor {
  public:
    descriptor() = default;
    explicit descriptor(int fd) : fd_(fd) {}
    descriptor(descriptor &&other) noexcept : fd_(other.release()) {}
    descriptor &operator=(descriptor &&other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }
    ~descriptor() { reset(); }

    [[nodiscard]] int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    // Gives the descriptor away; the caller closes it.
    [[nodiscard]] int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};

}  // namespace ravo::platform

#endif
