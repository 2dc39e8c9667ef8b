// attach.h - attaches a process that the launcher started, or a descendant of one, to its host.
#pragma once

#include <array>
#include <string>
#include <string_view>

namespace hostsim {

// The environment variables that attach a process to the host, as "NAME=value". The first is LD_PRELOAD,
// which may list objects of the program too.
struct HostVariables {
    std::array<std::string, 3> entries;
    std::string preload;  // the value of LD_PRELOAD at the start
};

// Those of this process; null if it is not attached to a launcher's host.
const HostVariables* host_variables() noexcept;

// Sets those variables again that the program has removed.
void restore_environment() noexcept;

}  // namespace hostsim
