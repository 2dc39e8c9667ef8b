// supervisor.h - runs a command and waits for every process that it leaves behind. The launcher waits for the
// command only. A janitor process, the subreaper of the command's orphans, waits for the last of them and
// cleans up.
#pragma once

#include <csignal>
#include <functional>
#include <span>
#include <string>
#include <vector>

namespace hostsim {

struct Program {
    std::vector<std::string> arguments;    // the first is looked up in PATH
    std::vector<std::string> environment;  // "NAME=value"
    sighandler_t at_size_limit;            // disposition of SIGXFSZ, which the launcher itself ignores
};

// Returns the command's exit status, or one of exit_status.h. `at_end` runs in the janitor when no process of
// the command is left; that is before this returns unless the command leaves processes behind. It needs the
// descriptors `kept`. `look` runs in the launcher several times a second. std::system_error if no process
// could be created.
int supervise(const Program& program, std::span<const int> kept, const std::function<void()>& at_end,
              const std::function<void()>& look);

}  // namespace hostsim
