// port_filter.h - selects the ports that a command shows.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "ports.h"

namespace trelmctl {

// What a list shows if no port matches the filter.
constexpr std::string_view kNoPort = "No port matches.\n";

// A port must match every given part.
struct PortFilter {
    std::optional<PortSelector> port;  // a physical one
    std::string state;                 // a state in words, or "failed"
    std::string driver;

    // For an adapter and its physical port, with what could be read of them.
    bool admits(uint32_t instance, const std::optional<TRELM_FCOE_INFO>& adapter,
                const std::optional<PortState>& physical) const;
};

}  // namespace trelmctl
