// simulator_paths.h - where the parts of the simulator lie. Launcher and preload object find each other by
// their places relative to one another, so that a build tree and an installed tree may both be moved.
#pragma once

#include <filesystem>

namespace hostsim {

// The object that this code is part of: the launcher, or the preload object.
std::filesystem::path own_object();
// The launcher trelm-hostsim; empty where it is not found.
std::filesystem::path launcher_path();
// The preload object; empty where it is not found.
std::filesystem::path preload_path();

}  // namespace hostsim
