// descriptors.h - the descriptors that this process has open, so that a test can say that a call left none
// behind.
#pragma once

#include <algorithm>
#include <filesystem>
#include <iterator>

namespace trelm::test {

inline size_t open_descriptors() {
    const std::filesystem::directory_iterator entries("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

}  // namespace trelm::test
