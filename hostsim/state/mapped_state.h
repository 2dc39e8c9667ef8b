// mapped_state.h - the owner of a host's mapped file.
#pragma once

#include <memory>

namespace hostsim {

struct SharedState;  // the mapped file

struct Unmap {
    void operator()(SharedState* shared) const noexcept;
};
using MappedState = std::unique_ptr<SharedState, Unmap>;

}  // namespace hostsim
