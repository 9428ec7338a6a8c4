#include "Fuzz.h"

#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>

/// Usage: fuzz-TARGET FOLDER. Feeds each file of a corpus to the fuzz target once, where libFuzzer is not at hand.
int main(int argc, char* argv[]) {
    if (argc != 2) {
        std::cerr << "usage: " << argv[0] << " FOLDER\n";
        return 2;
    }
    LLVMFuzzerInitialize(&argc, &argv);
    LLVMFuzzerTestOneInput(nullptr, 0);
    int inputs = 0;
    for (const auto& file : std::filesystem::directory_iterator(argv[1])) {
        std::ifstream stream(file.path(), std::ios::binary);
        const std::string input{std::istreambuf_iterator<char>(stream), {}};
        std::cerr << file.path().filename() << std::endl; // the last one named is the one that aborts
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
        ++inputs;
    }
    return inputs == 0 ? 1 : 0; // an empty corpus has shown nothing
}
