// descriptors.h - the open descriptors of this process, so that a test can check that a call leaves none
// behind.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iterator>

namespace trelm::test {

inline size_t open_descriptors() {
    const std::filesystem::directory_iterator entries("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

// Reopens a descriptor that a failed close has closed, so that closing it again works.
inline void put_back(int descriptor) {
    const int other = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (other == descriptor) return;
    dup2(other, descriptor);
    close(other);
}

}  // namespace trelm::test
