// environment.h - the environment variables that put a command on a simulated host.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "passed_directories.h"
#include "root.h"

namespace hostsim {

// The value of an environment variable, empty if it is not set.
std::string_view variable(const char* name);

// The directories of PATH, without those of simulated hosts.
std::vector<std::string> machines_search_path();

// This process's environment with the host's variables, as "NAME=value". Creates a link in the root if
// LD_PRELOAD cannot hold the preload object's own path. std::runtime_error if it cannot hold the link's path
// either.
std::vector<std::string> environment_for(const Root& root, const PassedDirectories& passed);

}  // namespace hostsim
