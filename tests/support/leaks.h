// leaks.h - for tests that jump out of a call: the memory of the call is lost, and the leak checker must not
// report it.
#pragma once

#ifdef TRELM_SANITIZED_ADDRESS
#include <sanitizer/lsan_interface.h>
#endif

namespace trelm::test {

// Allocations of this thread may leak while an object lives.
#ifdef TRELM_SANITIZED_ADDRESS
using LeaksAllowed = __lsan::ScopedDisabler;
#else
struct [[maybe_unused]] LeaksAllowed {};
#endif

}  // namespace trelm::test
