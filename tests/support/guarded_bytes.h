// SPDX-License-Identifier: Apache-2.0
// Bytes whose end is the end of what may be read: one byte further ends the test.
#ifndef GUARDED_BYTES_H
#define GUARDED_BYTES_H

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <stdexcept>

#include "packet_bytes.h"

namespace packet {

class guarded_bytes {
  public:
    explicit guarded_bytes(const bytes &data) : size_(data.size()) {
        const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        readable_ = (size_ + page) / page * page;
        void *mapped = mmap(nullptr, readable_ + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (mapped == MAP_FAILED) throw std::runtime_error("no memory for guarded bytes");
        first_ = static_cast<std::uint8_t *>(mapped);
        mapped_ = readable_ + page;
        if (mprotect(first_ + readable_, page, PROT_NONE) != 0) throw std::runtime_error("no guard");
        std::copy(data.begin(), data.end(), this->data());
    }
    ~guarded_bytes() { munmap(first_, mapped_); }
    guarded_bytes(const guarded_bytes &) = delete;
    guarded_bytes &operator=(const guarded_bytes &) = delete;

    std::uint8_t *data() { return first_ + readable_ - size_; }
    std::size_t size() const { return size_; }

  private:
    std::uint8_t *first_;
    std::size_t size_;
    std::size_t readable_;
    std::size_t mapped_;
};

}  // namespace packet

#endif
