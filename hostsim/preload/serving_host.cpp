#include "serving_host.h"

#include "interpose.h"

namespace hostsim {

State* serving_state() noexcept { return OwnCalls::active() ? nullptr : State::current(); }

Host* serving_host() noexcept {
    if (serving_state() == nullptr) return nullptr;
    const OwnCalls own;
    const KeepErrno keep;
    return Host::current();
}

}  // namespace hostsim
