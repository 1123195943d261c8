// SPDX-License-Identifier: Apache-2.0
// Runs a fuzz target over the files of its corpus, without a fuzzer: each input as it is, then cut at every length and
// with each of its bytes changed, so that a replay also covers what lies next to a known input.
//
//   replay DIRECTORY...   ends with status 1 when there is no input in one of them; a find ends the process by itself

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

namespace {

using bytes = std::vector<std::uint8_t>;

bytes content(const std::filesystem::path &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// In a block of exactly its size, so that a read behind it is seen.
void run(const bytes &input, std::size_t size) {
    const auto exact = std::make_unique<std::uint8_t[]>(size);
    std::copy_n(input.begin(), size, exact.get());
    LLVMFuzzerTestOneInput(exact.get(), size);
}

void run_neighbours(bytes input) {
    for (std::size_t size = 0; size <= input.size(); ++size) run(input, size);
    for (std::uint8_t &value : input) {
        const std::uint8_t kept = value;
        for (const int other : {kept ^ 1, kept ^ 0x80, 0, 255}) {
            value = static_cast<std::uint8_t>(other);
            run(input, input.size());
        }
        value = kept;
    }
}

}  // namespace

int main(int argc, char **argv) {
    for (int i = 1; i < argc; ++i) {
        int count = 0;
        for (const auto &entry : std::filesystem::directory_iterator(argv[i])) {
            if (!entry.is_regular_file()) continue;
            std::printf("%s\n", entry.path().c_str());
            std::fflush(stdout);
            run_neighbours(content(entry.path()));
            ++count;
        }
        if (count == 0) {
            std::fprintf(stderr, "replay: no input in %s; put at least one file there\n", argv[i]);
            return 1;
        }
    }
    return argc > 1 ? 0 : 1;
}
