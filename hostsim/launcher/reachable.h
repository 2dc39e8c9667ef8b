// reachable.h - whether the preload object gets into a program. Into one that it does not, the simulated host
// does not get either: the program would work on the machine itself.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace hostsim {

// Why `command`, looked for in the directories of `search_path` as execvp does, cannot be reached. Nothing where
// it can be, or where there is no such program.
std::optional<std::string> why_unreachable(const std::string& command, std::string_view search_path);

}  // namespace hostsim
