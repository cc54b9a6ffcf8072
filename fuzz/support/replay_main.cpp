// Replays inputs through a target without a fuzzing engine: every file of
// each directory given (and every file given), in name order. A crash or a
// sanitizer report fails the run like any test.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace fs = std::filesystem;

int main(int argc, char **argv) {
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) {
        fs::path arg(argv[i]);
        if (!fs::is_directory(arg)) {
            inputs.push_back(arg);
            continue;
        }
        for (const auto &entry : fs::directory_iterator(arg))
            if (entry.is_regular_file()) inputs.push_back(entry.path());
    }
    std::sort(inputs.begin(), inputs.end());
    if (inputs.empty()) {
        std::fprintf(stderr, "no inputs\n");
        return 2;
    }
    for (const fs::path &p : inputs) {
        std::ifstream in(p, std::ios::binary);
        std::vector<uint8_t> data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        // Never a null pointer, as under the engine.
        uint8_t none = 0;
        LLVMFuzzerTestOneInput(data.empty() ? &none : data.data(), data.size());
    }
    std::printf("replayed %zu inputs\n", inputs.size());
    return 0;
}
