// Replays fuzz inputs without libFuzzer: every file named on the command line,
// and every file in a folder named there, goes once through the target's
// entry point, in name order. Builds without libFuzzer (g++, the sanitizer
// presets) run the committed corpora this way, so each target's contract is
// checked in every build, not only in the one that fuzzes.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int *argc, char ***argv);

int main(int argc, char **argv)
{
    namespace fs = std::filesystem;
    if (LLVMFuzzerInitialize)
        LLVMFuzzerInitialize(&argc, &argv);
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) {
        const fs::path path(argv[i]);
        if (!fs::is_directory(path)) {
            inputs.push_back(path);
            continue;
        }
        for (const fs::directory_entry &entry : fs::directory_iterator(path))
            if (entry.is_regular_file())
                inputs.push_back(entry.path());
    }
    std::sort(inputs.begin(), inputs.end());
    for (const fs::path &path : inputs) {
        std::ifstream file(path, std::ios::binary);
        const std::vector<char> bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
        if (!file.good() && !file.eof()) {
            std::fprintf(stderr, "cannot read %s\n", path.c_str());
            return 1;
        }
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
    }
    std::printf("replayed %zu inputs\n", inputs.size());
    return inputs.empty() ? 1 : 0; // an empty corpus is a mistake, not a pass
}
