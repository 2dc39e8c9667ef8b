// run.h - `trelm-hostsim run`: starts a command on the host that a file describes.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace hostsim {

struct RunOptions {
    std::filesystem::path host_file;
    std::optional<std::filesystem::path> root;  // none: a directory for temporary files, gone at the end
    bool force = false;                         // also a command that the host cannot reach
    std::vector<std::string> command;
};

// The exit status of the command, or one of exit_status.h. Throws, with nothing started, where the host cannot be
// had.
int run(const RunOptions& options);

}  // namespace hostsim
