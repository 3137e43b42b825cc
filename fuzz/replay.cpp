// Replays saved inputs through a fuzz target without libFuzzer, so that any compiler builds the
// targets and ctest runs their corpora in every build. Each argument is a file or a folder whose
// files are fed, one call each; a violated property traps, which fails the run.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv)
{
    std::vector<std::filesystem::path> inputs;
    for (int i = 1; i < argc; ++i) {
        if (std::filesystem::is_directory(argv[i])) {
            for (const auto& entry : std::filesystem::directory_iterator(argv[i]))
                if (entry.is_regular_file())
                    inputs.push_back(entry.path());
        } else {
            inputs.emplace_back(argv[i]);
        }
    }
    std::sort(inputs.begin(), inputs.end());
    if (inputs.empty()) {
        std::fprintf(stderr, "no inputs to replay\n");
        return 1;
    }
    for (const auto& input : inputs) {
        std::ifstream file(input, std::ios::binary);
        if (!file) {
            std::fprintf(stderr, "cannot read %s\n", input.c_str());
            return 1;
        }
        const std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
    std::printf("replayed %zu inputs\n", inputs.size());
    return 0;
}
