// target.h - for all fuzz targets: the input as a source of choices, and a check that aborts the process.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace trelm::fuzz {

[[noreturn]] inline void fail(const char* file, int line, const char* condition) {
    fprintf(stderr, "%s:%d: not so: %s\n", file, line, condition);
    abort();
}

#define REQUIRE(condition) ((condition) ? void() : ::trelm::fuzz::fail(__FILE__, __LINE__, #condition))

// Reads the input from front to back. After its end all values are zero.
class Input {
  public:
    Input(const uint8_t* data, size_t size) : rest_(data, size) {}

    bool empty() const { return rest_.empty(); }
    // At most `count` bytes.
    std::span<const uint8_t> bytes(size_t count) {
        const auto taken = rest_.first(std::min(count, rest_.size()));
        rest_ = rest_.subspan(taken.size());
        return taken;
    }
    template <typename Number>
    Number take() {
        Number number = 0;
        const auto taken = bytes(sizeof number);
        std::copy(taken.begin(), taken.end(), reinterpret_cast<uint8_t*>(&number));
        return number;
    }
    uint32_t below(uint32_t bound) { return take<uint8_t>() % bound; }

  private:
    std::span<const uint8_t> rest_;
};

}  // namespace trelm::fuzz
