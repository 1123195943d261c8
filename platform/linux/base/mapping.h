// SPDX-License-Identifier: Apache-2.0
// Memory that is mapped, and unmapped when its owner goes.
#ifndef PLATFORM_LINUX_BASE_MAPPING_H
#define PLATFORM_LINUX_BASE_MAPPING_H

#include <sys/mman.h>

#include <cstddef>
#include <utility>

namespace ravo::platform {

class mapping {
  public:
    mapping() = default;
    // Maps bytes of a descriptor for reading and writing, shared with whoever else has them; fd -1: zeroed memory of
    // the process's own. Owns nothing, and errno says why, when that fails.
    mapping(int fd, std::size_t size, std::size_t offset = 0) : size_(size) {
        const int flags = fd >= 0 ? MAP_SHARED : MAP_PRIVATE | MAP_ANONYMOUS;
        void *at = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, flags, fd, static_cast<off_t>(offset));
        if (at != MAP_FAILED) at_ = at;
    }
    mapping(mapping &&other) noexcept : at_(std::exchange(other.at_, nullptr)), size_(other.size_) {}
    mapping &operator=(mapping &&other) noexcept {
        std::swap(at_, other.at_);
        std::swap(size_, other.size_);
        return *this;
    }
    ~mapping() {
        if (at_ != nullptr) ::munmap(at_, size_);
    }

    explicit operator bool() const { return at_ != nullptr; }
    // Takes the pages of a file out of the process's memory; what is in them stays, and comes back as it is used.
    void rest() const {
        if (at_ != nullptr) (void)::madvise(at_, size_, MADV_DONTNEED);  // a matter of memory alone
    }
    [[nodiscard]] void *get() const { return at_; }
    [[nodiscard]] std::size_t size() const { return size_; }

  private:
    void *at_ = nullptr;
    std::size_t size_ = 0;
};

}  // namespace ravo::platform

#endif
