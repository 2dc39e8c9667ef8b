// faults.h - decides which requests go wrong. Occurrences are counted in the state that all processes of a
// host share, so that 'the third SCSI command' means the third of the host, whichever process sends it.
#pragma once

#include <cstdint>
#include <optional>

#include "model.h"

namespace hostsim {

class State;

// The properties of a request that a fault may be restricted to.
struct FaultSite {
    Operation operation;
    DriverKind driver;
    const PortRef* port = nullptr;
    std::optional<uint32_t> target{};
    std::optional<uint8_t> opcode{};
};

struct FaultEffect {
    uint32_t status = 0;
    int error = 0;
};

// Counts the request for every fault that it matches; the effect of the first one whose turn it is.
std::optional<FaultEffect> take_fault(const Model& model, State& state, const FaultSite& site);

}  // namespace hostsim
