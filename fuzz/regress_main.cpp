// Runs a fuzz target once over each saved input: every file named, and every
// file in each directory named. The test suite runs each target over its
// corpus this way, so inputs that once broke something keep being tried in
// the normal and sanitizer builds; a crash or sanitizer report fails it.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv) {
    std::vector<std::filesystem::path> inputs;
    for (int i = 1; i < argc; i++) {
        if (std::filesystem::is_directory(argv[i]))
            inputs.insert(inputs.end(), std::filesystem::directory_iterator(argv[i]), {});
        else
            inputs.emplace_back(argv[i]);
    }
    std::sort(inputs.begin(), inputs.end());
    for (const auto &path : inputs) {
        std::ifstream in(path, std::ios::binary);
        if (!in) {
            fprintf(stderr, "cannot read %s\n", path.c_str());
            return 1;
        }
        std::string data{std::istreambuf_iterator<char>(in), {}};
        printf("%s\n", path.c_str());
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(data.data()), data.size());
    }
    // No input at all is a corpus gone missing, not a pass.
    return inputs.empty() ? 1 : 0;
}
