// own_calls.h - the simulator's own calls of libc. The interposed functions are called by the simulator too,
// which must reach the machine's files: while an OwnCalls lives, they pass every call of its thread on
// unchanged.
#pragma once

#include "hostsim_api.h"

namespace hostsim {

class HOSTSIM_API OwnCalls {
  public:
    OwnCalls() noexcept;
    ~OwnCalls();
    OwnCalls(const OwnCalls&) = delete;
    OwnCalls& operator=(const OwnCalls&) = delete;

    static bool active() noexcept;
};

}  // namespace hostsim
