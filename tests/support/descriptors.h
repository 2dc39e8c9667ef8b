// descriptors.h - the open descriptors of this process: how many there are, and their numbers.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <vector>

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

// While the object lives, new descriptors are 100 and above.
class HighDescriptors {
  public:
    HighDescriptors() {
        while (taken_.empty() || taken_.back() < 99) taken_.push_back(open("/dev/null", O_RDWR | O_CLOEXEC));
    }
    ~HighDescriptors() {
        for (const int fd : taken_) close(fd);
    }
    HighDescriptors(HighDescriptors&&) = delete;

  private:
    std::vector<int> taken_;
};

}  // namespace trelm::test
