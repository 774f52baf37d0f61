/// Takes libFuzzer's place under a compiler that has none: runs each file given, once.

#include <cstdint>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char* argv[]) {
    for (int i = 1; i < argc; ++i) {
        std::ifstream file(argv[i], std::ios::binary);
        if (!file.is_open()) {
            std::cerr << argv[i] << ": cannot be opened\n";
            return EXIT_FAILURE;
        }
        std::cout << argv[i] << std::endl;
        const std::string input{std::istreambuf_iterator<char>(file), {}};
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
    }
    return EXIT_SUCCESS;
}
