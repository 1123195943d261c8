// SPDX-License-Identifier: Apache-2.0
// Surface: frames of any bytes, with any time, comment and VLAN tag, written as a capture. The input is a row of
// frames, each with a head of fifteen bytes: time (8), lengths of frame and comment (2 each), whether there is a tag,
// and the low byte of each half of it.
//
// Contract: what was written is read back, by a reader of the fuzzer's own, as the same frames in the same order with
// the same times and comments, the tag behind the addresses; every block is whole and says its length twice, and there
// is nothing between blocks, behind the last one or in a padding but zeros.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "books/pcapng.h"

namespace {

using bytes = std::vector<std::uint8_t>;

constexpr std::size_t head_size = 15;

void require(bool condition, const char *what) {
    if (condition) return;
    std::fprintf(stderr, "pcapng_fuzz: %s\n", what);
    std::abort();
}

struct shown_frame {
    std::int64_t time_us = 0;
    bytes octets;
    std::string comment;
    bool operator==(const shown_frame &) const = default;
};

// ---- The reader ----

class reader {
  public:
    explicit reader(const bytes &file) : file_(file) {}

    std::vector<shown_frame> frames() {
        section();
        interface();
        std::vector<shown_frame> all;
        while (at_ < file_.size()) all.push_back(packet());
        return all;
    }

  private:
    template <typename number>
    number take() {
        number value{};
        require(stop_ - at_ >= sizeof value, "a number that is cut short");
        std::memcpy(&value, file_.data() + at_, sizeof value);
        at_ += sizeof value;
        return value;
    }

    bytes take_padded(std::size_t size) {
        const std::size_t padded = (size + 3) / 4 * 4;
        require(stop_ - at_ >= padded, "data that are cut short");
        const std::uint8_t *from = file_.data() + at_;
        require(std::all_of(from + size, from + padded, [](std::uint8_t byte) { return byte == 0; }), "a padding");
        at_ += padded;
        return {from, from + size};
    }

    // Goes into a block of this type.
    void enter(std::uint32_t type) {
        const std::size_t start = at_;
        stop_ = file_.size();
        require(take<std::uint32_t>() == type, "a block of another type");
        const auto length = take<std::uint32_t>();
        require(length % 4 == 0 && length >= 12 && length <= file_.size() - start, "a block that is not whole");
        stop_ = start + length - 4;
        std::uint32_t again = 0;
        std::memcpy(&again, file_.data() + stop_, sizeof again);
        require(again == length, "a block with two lengths");
    }
    void leave() {
        require(at_ == stop_, "a block with more in it");
        at_ = stop_ + 4;
    }

    void section() {
        enter(0x0A0D0D0A);
        require(take<std::uint32_t>() == 0x1A2B3C4D, "the byte order");
        require(take<std::uint16_t>() == 1 && take<std::uint16_t>() == 0, "the version");
        require(take<std::uint64_t>() == ~std::uint64_t{0}, "the section's length");
        leave();
    }
    void interface() {
        enter(1);
        require(take<std::uint16_t>() == 1 && take<std::uint16_t>() == 0, "the link's type");
        require(take<std::uint32_t>() == 0, "the longest frame");
        leave();
    }
    shown_frame packet() {
        shown_frame out;
        enter(6);
        require(take<std::uint32_t>() == 0, "another interface");
        const std::uint64_t high = take<std::uint32_t>();
        out.time_us = static_cast<std::int64_t>(high << 32 | take<std::uint32_t>());
        const auto captured = take<std::uint32_t>();
        require(take<std::uint32_t>() == captured, "a frame that is cut");
        out.octets = take_padded(captured);
        require(take<std::uint16_t>() == 1, "no comment");
        const auto size = take<std::uint16_t>();
        const bytes comment = take_padded(size);
        out.comment.assign(comment.begin(), comment.end());
        require(take<std::uint16_t>() == 0 && take<std::uint16_t>() == 0, "no end of the options");
        leave();
        return out;
    }

    const bytes &file_;
    std::size_t at_ = 0, stop_ = 0;
};

// ---- The input ----

unsigned half(const std::uint8_t *at) {
    return static_cast<unsigned>(at[0] << 8 | at[1]);
}

// Writes the frame that begins there, in memory of exactly its size. Returns what is to be read back.
shown_frame write(const std::uint8_t *data, std::size_t size, bytes *out, std::size_t *used) {
    shown_frame made;
    std::memcpy(&made.time_us, data, sizeof made.time_us);
    const std::size_t length = std::min<std::size_t>(half(data + 8), size - head_size);
    const std::size_t said = half(data + 10);
    const std::uint8_t *after = data + head_size + length;
    const std::size_t here = std::min(said, size - head_size - length);
    // A comment that is longer than the input is its bytes doubled until it is long enough.
    made.comment.assign(reinterpret_cast<const char *>(after), here);
    while (here != 0 && made.comment.size() < said) made.comment += std::string(made.comment);
    const auto frame = std::make_unique<std::uint8_t[]>(length);
    std::copy_n(data + head_size, length, frame.get());
    const bytes tag = data[12] % 2 != 0 ? bytes{0x81, data[13], 0, data[14]} : bytes{};
    ravo::platform::pcapng_frame(*out, made.time_us, {frame.get(), length}, made.comment, tag);
    made.octets.assign(frame.get(), frame.get() + length);
    if (length >= 12) made.octets.insert(made.octets.begin() + 12, tag.begin(), tag.end());
    made.comment.resize(std::min<std::size_t>(made.comment.size(), 0xFFFF));
    *used = head_size + length + here;
    return made;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    bytes file;
    ravo::platform::pcapng_begin(file);
    std::vector<shown_frame> written;
    for (std::size_t at = 0; at + head_size <= size;) {
        std::size_t used = 0;
        written.push_back(write(data + at, size - at, &file, &used));
        at += used;
    }
    require(reader(file).frames() == written, "other frames are read back");
    return 0;
}
