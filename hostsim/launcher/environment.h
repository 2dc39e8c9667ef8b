// environment.h - the environment variables that put a command on a simulated host.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "passed_directories.h"
#include "root.h"

namespace hostsim {

// The value of a variable of this process, empty where it is not set.
std::string_view variable(const char* name);

// The directories of PATH but those of simulated hosts.
std::vector<std::string> machines_search_path();

// "NAME=value" for each variable of this process, with those of the host. Makes a link in the root where the
// preload object's own path cannot be told to the dynamic linker. std::runtime_error where nothing helps.
std::vector<std::string> environment_for(const Root& root, const PassedDirectories& passed);

}  // namespace hostsim
