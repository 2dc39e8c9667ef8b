// run.h - `trelm-hostsim run`: starts a command on the host that a file describes.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace hostsim {

struct RunOptions {
    std::filesystem::path host_file;
    std::optional<std::filesystem::path> root;  // none: a temporary one
    bool force = false;                         // run a command that the simulator does not reach
    std::vector<std::string> command;
};

// Returns the exit status of the command, or one of exit_status.h. Throws before starting anything if the
// host cannot be created.
int run(const RunOptions& options);

}  // namespace hostsim
