// failing_calls.h - makes chosen calls of the library fail, and counts what it holds. Everything that the
// library asks of libc and of the management interface and that can fail goes through here.
#pragma once

#include <cstddef>
#include <cstdint>

namespace trelm::sweep {

enum class Failing {
    none,     // calls are only counted
    one,      // the n-th call fails
    onwards,  // the n-th call and all after it fail
};

// What a run leaves for the process that watches it. Lies in memory that both share.
struct Trail {
    uint64_t calls;            // of the library that could have failed
    const char* first_failed;  // the name of the first that did; null: none
    char complaint[512];       // what was wrong; empty: nothing
};

// From here on the n-th call fails, counted from here.
void arm(Failing failing, uint64_t n, Trail& trail);
// From here on nothing fails and nothing is counted.
void disarm();

// Blocks that the library allocated and nobody freed.
size_t live_blocks();
// Whether they are counted: a sanitizer wants the allocator's place for itself, and looks for leaks itself.
bool counts_blocks();

}  // namespace trelm::sweep
