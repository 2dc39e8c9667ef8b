// own_calls.h - the simulator's own use of libc. The interposers stand before libc for the simulator's code
// too, and a standard stream of ours must reach the machine's files, not the simulated host's: while an
// OwnCalls lives, every interposed function of its thread goes straight to libc.
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
