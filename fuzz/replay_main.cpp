// Runs a fuzz target over saved inputs (files, or every file in folders), so
// that a build without libFuzzer still exercises each target on its corpus.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz_check.h"

namespace fs = std::filesystem;

int main(int argc, char **argv) {
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) {
        const fs::path arg(argv[i]);
        if (fs::is_directory(arg)) {
            for (const auto &entry : fs::directory_iterator(arg))
                if (entry.is_regular_file()) inputs.push_back(entry.path());
        } else {
            inputs.push_back(arg);
        }
    }
    std::sort(inputs.begin(), inputs.end());
    if (inputs.empty()) {
        std::fprintf(stderr, "usage: %s INPUT-OR-FOLDER...\n", argv[0]);
        return 2;
    }
    for (const fs::path &path : inputs) {
        std::ifstream in(path, std::ios::binary);
        std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), {});
        bytes.reserve(1); // like libFuzzer, never a null pointer for an empty input
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
    std::printf("%zu inputs\n", inputs.size());
    return 0;
}
