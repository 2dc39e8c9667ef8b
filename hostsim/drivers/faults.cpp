// faults.cpp - matching requests with the faults of the model.
#include "faults.h"

#include <fmt/format.h>

#include <map>
#include <string>

#include "state.h"

namespace hostsim {
namespace {

bool matches(const Fault& fault, const FaultSite& site) {
    return fault.operation == site.operation && (!fault.driver || fault.driver == site.driver) &&
           (fault.port.empty() || (site.port && is_named(*site.port, fault.port))) &&
           (!fault.target || fault.target == site.target) && (!fault.opcode || fault.opcode == site.opcode);
}

bool is_due(const Fault& fault, uint64_t occurrence) {
    if (occurrence < fault.occurrence) return false;
    return fault.count == Fault::kAlways || occurrence - fault.occurrence < fault.count;
}

// The key of the fault's counter. It does not depend on the fault's place in the list, so that an edit that
// adds a fault before it does not reset the count.
std::string describe(const Fault& fault) {
    return fmt::format("fault:{}:{}:{}:{}:{}:{}:{}:{}:{}", static_cast<int>(fault.operation),
                       fault.driver ? static_cast<int>(*fault.driver) : -1, fault.port,
                       fault.target ? static_cast<int>(*fault.target) : -1,
                       fault.opcode ? static_cast<int>(*fault.opcode) : -1, fault.occurrence, fault.count,
                       fault.status, fault.error);
}

}  // namespace

std::optional<FaultEffect> take_fault(const Model& model, State& state, const FaultSite& site) {
    std::optional<FaultEffect> effect;
    std::map<std::string, int> alike;
    for (const Fault& fault : model.faults) {
        const std::string description = describe(fault);
        const int twin = alike[description]++;
        if (!matches(fault, site)) continue;
        const uint64_t occurrence = 1 + state.counter(fmt::format("{}#{}", description, twin)).fetch_add(1);
        if (!effect && is_due(fault, occurrence)) effect = FaultEffect{fault.status, fault.error};
    }
    return effect;
}

}  // namespace hostsim
