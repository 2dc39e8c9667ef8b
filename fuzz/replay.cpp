// replay.cpp - main() of a fuzz target that is built without a fuzzer: runs each file of a directory once.
#include <filesystem>
#include <fstream>
#include <vector>

#include "target.h"

int main(int, char** arguments) {
    size_t inputs = 0;
    for (const auto& entry : std::filesystem::directory_iterator(arguments[1])) {
        std::ifstream file(entry.path(), std::ios::binary);
        REQUIRE(file.is_open());
        const std::vector<char> input(std::istreambuf_iterator<char>(file), {});
        printf("%s\n", entry.path().c_str());
        fflush(stdout);
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
        ++inputs;
    }
    printf("%zu inputs replayed\n", inputs);
    return inputs ? 0 : 1;
}
