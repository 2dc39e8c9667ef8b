// supervisor.h - runs a command to its end and to that of every process that it leaves behind. The launcher
// itself waits for the command only; a janitor, to which the kernel gives the command's orphans, stays until
// the last of them has ended and then cleans up.
#pragma once

#include <functional>
#include <span>
#include <string>
#include <vector>

namespace hostsim {

struct Command {
    std::vector<std::string> arguments;    // the first is the program, looked for in PATH
    std::vector<std::string> environment;  // "NAME=value"
};

// The command's exit status, or one of exit_status.h. `at_end` runs in the janitor when no process of the command
// is left: before this returns, unless some are left behind. `kept` are the descriptors that it needs. `look` runs
// in the launcher, several times a second. std::system_error only where no process was made.
int supervise(const Command& command, std::span<const int> kept, const std::function<void()>& at_end,
              const std::function<void()>& look);

}  // namespace hostsim
