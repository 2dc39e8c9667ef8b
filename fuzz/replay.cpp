// replay.cpp - main() of a fuzz target that is built without a fuzzer: runs each named file, and each file of
// each named directory, once.
#include <filesystem>
#include <fstream>
#include <vector>

#include "target.h"

namespace {

namespace fs = std::filesystem;

size_t replay(const fs::path& path) {
    size_t inputs = 0;
    if (fs::is_directory(path)) {
        for (const auto& entry : fs::directory_iterator(path)) inputs += replay(entry.path());
        return inputs;
    }
    std::ifstream file(path, std::ios::binary);
    REQUIRE(file.is_open());
    const std::vector<char> input(std::istreambuf_iterator<char>(file), {});
    printf("%s\n", path.c_str());
    fflush(stdout);
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
    return 1;
}

}  // namespace

int main(int count, char** arguments) {
    size_t inputs = 0;
    for (int i = 1; i < count; ++i) inputs += replay(arguments[i]);
    printf("%zu inputs replayed\n", inputs);
    return inputs ? 0 : 1;
}
