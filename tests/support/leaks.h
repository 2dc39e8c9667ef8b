// leaks.h - for tests that jump out of a call: what it held is lost, and a leak checker is not to say so.
#pragma once

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

namespace trelm::test {

// What this thread allocates while one lives may leak.
#ifdef __SANITIZE_ADDRESS__
using LeaksAllowed = __lsan::ScopedDisabler;
#else
struct [[maybe_unused]] LeaksAllowed {};
#endif

}  // namespace trelm::test
