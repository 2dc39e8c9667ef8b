// sweep.h - what the sweep's files know of each other: the calls of the library that can fail, the scenario
// that makes them, and what a run of it leaves.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "model.h"

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
    char complaint[512];       // what was wrong first; empty: nothing
};

// A host of the scenario: its description and how many physical ports it has.
struct SweptHost {
    const char* name;
    hostsim::Model (*model)();
    uint32_t ports;
};
inline constexpr size_t kSweptHosts = 2;
extern const SweptHost kHosts[kSweptHosts];

// From here on the n-th call of this thread fails, counted from here.
void arm(Failing failing, uint64_t n, Trail& trail);
// From here on nothing fails and nothing is counted.
void disarm();
// Blocks that the library allocated and nobody freed. A sanitizer, which wants the allocator's place for
// itself, looks for leaks itself.
size_t live_blocks();

void complain(Trail& trail, const std::string& what);
// Uses every function, whatever fails. Ends with the library freed.
void use_library(const SweptHost& host, Trail& trail);
// Loads and works once more, where nothing may fail any longer.
void use_library_again(const SweptHost& host, Trail& trail);

}  // namespace trelm::sweep
