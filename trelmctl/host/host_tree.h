// host_tree.h - the physical ports of the host with their virtual ports, targets and LUNs, read once from top
// to bottom. A failure is kept at its place.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "luns.h"
#include "port_filter.h"
#include "targets.h"

namespace trelmctl {

struct TargetBranch {
    TRELM_TGT_INFO info;
    std::vector<ListedLun> luns;
    std::optional<Failure> failure;
};

struct PortBranch {
    PortState port;
    std::vector<TargetBranch> targets;
    std::optional<Failure> failure;  // of the target listing
};

struct AdapterBranch {
    uint32_t instance = 0;
    std::optional<TRELM_FCOE_INFO> info;
    std::vector<PortBranch> ports;  // the physical one first
    std::optional<Failure> failure;
};

// None if the filter excludes the port.
std::optional<AdapterBranch> ask_branch(const LoadedHost& host, uint32_t instance, const PortFilter& filter,
                                        LunDetail detail, Progress& progress);

// From top to bottom.
std::vector<Failure> failures_of(const AdapterBranch& adapter);

}  // namespace trelmctl
