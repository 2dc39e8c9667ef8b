// guarded.h - a record or buffer of a caller between guard bytes. Everything starts with a pattern in which
// neighbouring bytes differ, so that a test can check which bytes a function wrote.
#pragma once

#include <gtest/gtest.h>

#include <vector>

namespace trelm::test {

// Bytes between guards.
class GuardedBytes {
  public:
    explicit GuardedBytes(size_t size) : bytes_(kGuard + size + kGuard) {
        for (size_t i = 0; i < bytes_.size(); ++i) bytes_[i] = pattern(i);
    }

    uint8_t* data() { return bytes_.data() + kGuard; }
    const uint8_t* data() const { return bytes_.data() + kGuard; }
    size_t size() const { return bytes_.size() - 2 * kGuard; }
    // The initial value of a byte of the contents.
    static uint8_t initial(size_t offset) { return pattern(kGuard + offset); }

    // Whether everything after the first bytes of the contents is unchanged, including the guards.
    ::testing::AssertionResult only_written(size_t first) const {
        for (size_t i = 0; i < bytes_.size(); ++i) {
            if (bytes_[i] == pattern(i) || (i >= kGuard && i < kGuard + first)) continue;
            return ::testing::AssertionFailure()
                   << "byte " << static_cast<ptrdiff_t>(i - kGuard) << " of " << size() << " was written";
        }
        return ::testing::AssertionSuccess();
    }
    ::testing::AssertionResult untouched() const { return only_written(0); }
    // Whether the bytes before and after the contents are unchanged.
    ::testing::AssertionResult guards_intact() const { return only_written(size()); }

  private:
    static constexpr size_t kGuard = 256;
    static uint8_t pattern(size_t i) { return static_cast<uint8_t>(0xA5 + i * 37); }

    std::vector<uint8_t> bytes_;
};

// A record between guards, accessed like through a pointer. Only for records without constructors.
template <typename Record>
class Guarded : public GuardedBytes {
    static_assert(std::is_trivially_copyable_v<Record>);

  public:
    Guarded() : GuardedBytes(sizeof(Record)) {}

    Record* get() { return reinterpret_cast<Record*>(data()); }
    Record* operator->() { return get(); }
    Record& operator*() { return *get(); }
};

}  // namespace trelm::test
