// scenario.h - what a program does with the library from load to free: every public function, with the
// records and arrays of a caller between guard bytes. What no failure may bring about is a complaint.
#pragma once

#include "failing_calls.h"
#include "model.h"

namespace trelm::sweep {

// A host of the scenario: its description and how many physical ports it has.
struct SweptHost {
    const char* name;
    hostsim::Model (*model)();
    uint32_t ports;
};
inline constexpr size_t kSweptHosts = 2;
extern const SweptHost kHosts[kSweptHosts];

// Notes the first complaint of a run.
[[gnu::format(printf, 2, 3)]] void complain(Trail& trail, const char* format, ...);

// Uses every function, whatever fails. Ends with the library freed.
void use_library(const SweptHost& host, Trail& trail);

// Loads and works once more, where nothing may fail any longer.
void use_library_again(const SweptHost& host, Trail& trail);

}  // namespace trelm::sweep
