// SPDX-License-Identifier: Apache-2.0
// Runs a fuzz target over the files of its corpus, without a fuzzer: each input as it is, and, of those that somebody
// named, also cut at every length and with each of its bytes changed, so that a replay also covers what lies next to a
// known input. Inputs that a fuzzer found bear 40 hexadecimal digits.
//
//   replay [--neighbours N] DIRECTORY...   N: at most about so many neighbours of an input (all); ends with status 1
//                                          when there is no input in a directory; a find ends the process by itself

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <memory>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

// Mutators are linked, but not called.
extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t *, std::size_t size, std::size_t) {
    return size;
}

namespace {

using bytes = std::vector<std::uint8_t>;

bytes content(const std::filesystem::path &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

bool is_named_by_fuzzer(const std::string &name) {
    return name.size() == 40 && name.find_first_not_of("0123456789abcdef") == std::string::npos;
}

// In a block of exactly its size, so that a read behind it is seen.
void run(const bytes &input, std::size_t size) {
    const auto exact = std::make_unique<std::uint8_t[]>(size);
    std::copy_n(input.begin(), size, exact.get());
    LLVMFuzzerTestOneInput(exact.get(), size);
}

void run_neighbours(bytes input, std::size_t most) {
    constexpr std::size_t of_a_byte = 5;
    const std::size_t step = std::max<std::size_t>(1, input.size() * of_a_byte / most);
    for (std::size_t size = 0; size < input.size(); size += step) run(input, size);
    for (std::size_t at = 0; at < input.size(); at += step) {
        const std::uint8_t kept = input[at];
        for (const int other : {kept ^ 1, kept ^ 0x80, 0, 255}) {
            input[at] = static_cast<std::uint8_t>(other);
            run(input, input.size());
        }
        input[at] = kept;
    }
}

// Returns the number of inputs.
int replay(const char *directory, std::size_t most) {
    int count = 0;
    for (const auto &entry : std::filesystem::directory_iterator(directory)) {
        if (!entry.is_regular_file()) continue;
        std::printf("%s\n", entry.path().c_str());
        std::fflush(stdout);
        const bytes input = content(entry.path());
        run(input, input.size());
        if (!is_named_by_fuzzer(entry.path().filename())) run_neighbours(input, most);
        ++count;
    }
    return count;
}

}  // namespace

int main(int argc, char **argv) {
    std::size_t most = std::numeric_limits<std::size_t>::max();
    int first = 1;
    if (argc > 2 && std::strcmp(argv[1], "--neighbours") == 0) {
        most = std::max(1UL, std::strtoul(argv[2], nullptr, 10));
        first = 3;
    }
    for (int i = first; i < argc; ++i) {
        if (replay(argv[i], most) != 0) continue;
        std::fprintf(stderr, "replay: no input in %s; put at least one file there\n", argv[i]);
        return 1;
    }
    return argc > first ? 0 : 1;
}
