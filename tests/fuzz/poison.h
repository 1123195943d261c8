// SPDX-License-Identifier: Apache-2.0
// What a fuzzer does so that a byte that is neither a message's nor configuration's shows: it fills, before a message,
// all that such a byte could come from with one pattern, and then with another; what is sent must be the same.
#ifndef FUZZ_POISON_H
#define FUZZ_POISON_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

// Frames of functions are to stand on the one stack that is painted.
extern "C" inline const char *__asan_default_options() {  // NOLINT: the sanitizer's name
    return "detect_stack_use_after_return=0";
}

namespace poison {

using pattern = std::array<std::uint8_t, 8>;

// The second would do as options: a message type, an option 82 that goes too far, and END.
inline constexpr std::array<pattern, 2> patterns = {pattern{0xA5, 0xA5, 0xA5, 0xA5, 0xA5, 0xA5, 0xA5, 0xA5},
                                                    pattern{53, 1, 1, 82, 2, 1, 200, 255}};

inline std::vector<std::uint8_t> filled(std::size_t size, const pattern &with) {
    std::vector<std::uint8_t> out(size);
    for (std::size_t i = 0; i < size; ++i) out[i] = with[i % with.size()];
    return out;
}

// A message that is all pattern, but refused: its flags are none.
inline std::vector<std::uint8_t> refused_message(const pattern &with) {
    std::vector<std::uint8_t> out = filled(1000, with);
    out[10] = out[11] = 0xFF;
    return out;
}

// Fills the stack below the caller's frame.
#if defined(__clang__)
__attribute__((noinline, no_sanitize("address")))
#else
__attribute__((noinline))
#endif
inline void
paint_stack(const pattern &with) {
    std::uint8_t room[24 * 1024];
    for (std::size_t at = 0; at < sizeof room; at += with.size()) std::memcpy(room + at, with.data(), with.size());
    __asm__ volatile("" : : "r"(room) : "memory");  // it is never read
}

}  // namespace poison

#endif
