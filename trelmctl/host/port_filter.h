// port_filter.h - which ports a command is to show.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "ports.h"

namespace trelmctl {

// What a list says that a filter left nothing of.
constexpr std::string_view kNoPort = "No port matches.\n";

// Each part that is given must hold.
struct PortFilter {
    std::optional<PortSelector> port;  // a physical one
    std::string state;                 // a state in words, or "failed"
    std::string driver;

    // Of an adapter with its physical port, as far as they could be asked.
    bool admits(uint32_t instance, const std::optional<TRELM_FCOE_INFO>& adapter,
                const std::optional<PortState>& physical) const;
};

}  // namespace trelmctl
