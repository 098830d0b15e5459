// Runs fuzz inputs (files, or every file in the given folders) through a fuzz
// target's entry point once each, without libFuzzer: the corpus replay that
// normal builds run as a test. Fails when it finds no input at all, so a
// missing corpus cannot pass unnoticed.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv)
{
    std::vector<std::filesystem::path> inputs;
    for (int i = 1; i < argc; ++i) {
        const std::filesystem::path path(argv[i]);
        if (std::filesystem::is_directory(path)) {
            for (const auto& entry : std::filesystem::directory_iterator(path)) {
                if (entry.is_regular_file()) {
                    inputs.push_back(entry.path());
                }
            }
        } else if (std::filesystem::is_regular_file(path)) {
            inputs.push_back(path);
        } else {
            std::cerr << "no such input: " << path << '\n';
            return 1;
        }
    }
    std::sort(inputs.begin(), inputs.end());
    if (inputs.empty()) {
        std::cerr << "no inputs to replay\n";
        return 1;
    }
    for (const auto& input : inputs) {
        std::ifstream in(input, std::ios::binary);
        const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    }
    std::cout << "replayed " << inputs.size() << " inputs\n";
    return 0;
}
