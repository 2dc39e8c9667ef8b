// attach.h - how a process that the launcher started, or a child of one, comes onto its host and its children
// stay there.
#pragma once

#include <array>
#include <string>
#include <string_view>

namespace hostsim {

// The environment variables that take a process onto the host, as "NAME=value". The first names preloaded
// objects, of which a program may have more than the simulator's.
struct HostVariables {
    std::array<std::string, 3> entries;
    std::string preload;  // the simulator's own part of the first
};

// Those of this process; null where no launcher's host is active.
const HostVariables* host_variables() noexcept;

// Puts back the variables that the program removed.
void restore_environment() noexcept;

}  // namespace hostsim
