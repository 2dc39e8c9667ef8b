// serving_host.h - the host that answers a call of this process.
#pragma once

#include "host.h"
#include "state.h"

namespace hostsim {

// The host of this process; null if none is active, and for the simulator's own calls.
State* serving_state() noexcept;
Host* serving_host() noexcept;

}  // namespace hostsim
