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

// The command's exit status, 128 and its number for a signal, 127 and 126 for a program that is not found or
// cannot be started. `at_end` runs when no process of the command is left: before this returns, unless some
// are left behind. `kept` are the descriptors that `at_end` needs.
int supervise(const Command& command, std::span<const int> kept, const std::function<void()>& at_end);

}  // namespace hostsim
