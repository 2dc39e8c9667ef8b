// reachable.h - whether the dynamic linker preloads the simulator into a program. Without it the program
// would run on the machine itself.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace hostsim {

// Why the simulator is not preloaded into `command`, which is looked up in `search_path` as execvp does.
// Empty if it is, or if the program is not found.
std::optional<std::string> why_unreachable(const std::string& command, std::string_view search_path);

}  // namespace hostsim
