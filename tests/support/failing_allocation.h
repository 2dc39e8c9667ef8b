// failing_allocation.h - makes one allocation of this thread fail. A test executable includes it once: it
// replaces the C allocator, or that of the sanitizer, for all libraries in the process.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdlib>

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
[[gnu::weak]] void* __interceptor_malloc(size_t size);
[[gnu::weak]] void* __interceptor_calloc(size_t count, size_t size);
}

namespace trelm::test {

inline constexpr size_t kAnySize = 0;
inline constinit thread_local bool allocation_is_to_fail = false;
inline constinit thread_local size_t failing_size = kAnySize;
inline constinit thread_local unsigned passing = 0;

// The runtime of a sanitizer allocates before its checks work, so these functions are built without checks.
#define TRELM_UNCHECKED __attribute__((no_sanitize("address", "undefined", "thread")))

TRELM_UNCHECKED inline bool allocation_fails(size_t size) {
    if (!allocation_is_to_fail || (failing_size != kAnySize && size != failing_size)) return false;
    if (passing-- > 0) return false;
    allocation_is_to_fail = false;
    errno = ENOMEM;
    return true;
}

// While the object lives, one allocation of that size fails, after `after` others of the same size.
class FailingAllocation {
  public:
    explicit FailingAllocation(size_t size = kAnySize, unsigned after = 0) {
        passing = after;
        failing_size = size;
        allocation_is_to_fail = true;
    }
    ~FailingAllocation() { allocation_is_to_fail = false; }
    FailingAllocation(FailingAllocation&&) = delete;
};

}  // namespace trelm::test

extern "C" TRELM_UNCHECKED __attribute__((visibility("default"))) void* malloc(size_t size) {
    if (trelm::test::allocation_fails(size)) return nullptr;
    return __interceptor_malloc ? __interceptor_malloc(size) : __libc_malloc(size);
}

extern "C" TRELM_UNCHECKED __attribute__((visibility("default"))) void* calloc(size_t count, size_t size) {
    if (trelm::test::allocation_fails(count * size)) return nullptr;
    return __interceptor_calloc ? __interceptor_calloc(count, size) : __libc_calloc(count, size);
}
