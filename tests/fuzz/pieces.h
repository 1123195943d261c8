// SPDX-License-Identifier: Apache-2.0
// Mutation of inputs that are rows of pieces, such as options, messages or events: a piece is copied, taken out, moved,
// or changed inside, and the others stay what they are. How an input is cut is the fuzzer's own affair.
#ifndef FUZZ_PIECES_H
#define FUZZ_PIECES_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <utility>
#include <vector>

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t *data, std::size_t size, std::size_t max_size);

namespace pieces {

using bytes = std::vector<std::uint8_t>;

// Something to draw from.
class dice {
  public:
    explicit dice(unsigned seed) : engine_(seed) {}
    // Below limit, which is not 0.
    std::size_t below(std::size_t limit) { return engine_() % limit; }
    bool one_in(std::size_t times) { return below(times) == 0; }

  private:
    std::minstd_rand engine_;
};

// Lets the fuzzer change a piece, that may grow by so much.
inline void change_inside(bytes &piece, std::size_t growth) {
    const std::size_t size = piece.size();
    piece.resize(size + growth);
    piece.resize(LLVMFuzzerMutate(piece.data(), size, piece.size()));
}

// Changes a row of pieces in one place. fix: makes a changed piece whole again (lengths, checksums).
template <typename fixer>
void change(std::vector<bytes> &row, dice &draw, const fixer &fix) {
    if (row.empty()) row.emplace_back();
    const std::size_t at = draw.below(row.size());
    switch (draw.below(8)) {
        case 0:
            row.insert(row.begin() + static_cast<std::ptrdiff_t>(draw.below(row.size() + 1)), bytes(row[at]));
            break;
        case 1:
            if (row.size() > 1) row.erase(row.begin() + static_cast<std::ptrdiff_t>(at));
            break;
        case 2:
            std::swap(row[at], row[draw.below(row.size())]);
            break;
        default:
            change_inside(row[at], 32);
            // One in many stays as broken as it is now.
            if (!draw.one_in(12)) fix(row[at]);
            break;
    }
}

// Puts a row where the fuzzer wants it. Returns its size, cut at the room there is.
inline std::size_t put(const std::vector<bytes> &row, const bytes &before, std::uint8_t *data, std::size_t room) {
    bytes all = before;
    for (const bytes &piece : row) all.insert(all.end(), piece.begin(), piece.end());
    all.resize(std::min(all.size(), room));
    if (!all.empty()) std::memcpy(data, all.data(), all.size());
    return all.size();
}

// Cuts an option area, from the first option on, into options; what makes no option is the last piece.
inline std::vector<bytes> options_of(const bytes &area) {
    std::vector<bytes> row;
    for (std::size_t at = 0; at < area.size();) {
        const bool single = area[at] == 0 || area[at] == 255 || at + 1 == area.size();
        const std::size_t size = std::min(single ? std::size_t{1} : std::size_t{2} + area[at + 1], area.size() - at);
        row.emplace_back(area.begin() + static_cast<std::ptrdiff_t>(at),
                         area.begin() + static_cast<std::ptrdiff_t>(at + size));
        at += size;
    }
    return row;
}

// Makes a piece an option: its length is that of what it has.
inline void fix_option(bytes &option) {
    if (option.size() < 2 || option[0] == 0 || option[0] == 255) {
        option.resize(option.empty() ? 0 : 1);
        return;
    }
    option.resize(std::min<std::size_t>(option.size(), 257));
    option[1] = static_cast<std::uint8_t>(option.size() - 2);
}

// An option that the relay looks at, to be put somewhere.
inline bytes known_option(dice &draw) {
    static const std::vector<bytes> known = {{53, 1, 1},
                                             {53, 1, 5},
                                             {53, 0},
                                             {60, 3, 'a', 'b', 'c'},
                                             {60, 0},
                                             {61, 5, 1, 0xAA, 0xBB, 0xCC, 0xDD},
                                             {82, 18, 1, 6, 0, 4, 100, 0, 2, 1, 2, 8, 0, 6, 0, 0, 0x5E, 0, 0x53, 1},
                                             {82, 8, 1, 6, 0, 4, 100, 0, 2, 1},
                                             {82, 3, 2, 1, 9},
                                             {82, 0},
                                             {82, 2, 1, 200},
                                             {12, 4, 'h', 'o', 's', 't'},
                                             {0},
                                             {255}};
    if (!draw.one_in(4)) return known[draw.below(known.size())];
    bytes filling = {12, static_cast<std::uint8_t>(draw.below(256))};  // lengths decide too
    filling.resize(2U + filling[1], 'x');
    return filling;
}

// Changes an option area in one place, and mostly leaves it a chain with an END.
inline bytes change_options(const bytes &area, dice &draw) {
    std::vector<bytes> row = options_of(area);
    if (draw.one_in(3))
        row.insert(row.begin() + static_cast<std::ptrdiff_t>(draw.below(row.size() + 1)), known_option(draw));
    else
        change(row, draw, fix_option);
    bytes out;
    for (const bytes &piece : row) out.insert(out.end(), piece.begin(), piece.end());
    if (!draw.one_in(10) && std::none_of(row.begin(), row.end(), [](const bytes &one) { return one == bytes{255}; }))
        out.push_back(255);
    return out;
}

}  // namespace pieces

#endif
