// simulator_paths.h - the paths of launcher and preload object. Each finds the other relative to itself, so
// that a build tree and an installed tree may be moved.
#pragma once

#include <filesystem>

namespace hostsim {

// The object that this code is part of: the launcher, or the preload object.
std::filesystem::path own_object();
// The launcher trelm-hostsim; empty if it is not found.
std::filesystem::path launcher_path();
// The preload object; empty if it is not found.
std::filesystem::path preload_path();

}  // namespace hostsim
