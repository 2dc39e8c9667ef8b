// sweep.h - shared by the files of the sweep: the calls of the library that can fail, the scenario that makes
// them, and the trail of a run.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "model.h"

namespace trelm::sweep {

enum class Failing {
    none,     // no call fails; calls are only counted
    one,      // the n-th call fails
    onwards,  // the n-th call and all after it fail
};

// The trail of a run for the process that watches it, in memory that both share.
struct Trail {
    uint64_t calls;            // that could have failed
    const char* first_failed;  // name of the first failed call; null: none
    char complaint[512];       // the first complaint; empty: none
};

// A host for the scenario: its description and its number of physical ports.
struct SweptHost {
    const char* name;
    hostsim::Model (*model)();
    uint32_t ports;
};
inline constexpr size_t kSweptHosts = 2;
extern const SweptHost kHosts[kSweptHosts];

// From now on the n-th call of this thread fails, counted from here.
void arm(Failing failing, uint64_t n, Trail& trail);
// From now on nothing fails and nothing is counted.
void disarm();
// The number of blocks that the library allocated and did not free. A sanitizer replaces the allocator and
// finds leaks itself.
size_t live_blocks();

void complain(Trail& trail, const std::string& what);
// Uses every function, whatever fails. The library is free at the end.
void use_library(const SweptHost& host, Trail& trail);
// Loads and works again, and nothing may fail.
void use_library_again(const SweptHost& host, Trail& trail);

}  // namespace trelm::sweep
