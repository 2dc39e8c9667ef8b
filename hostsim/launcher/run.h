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
    std::vector<std::string> command;
};

// The exit status of the command. Throws, with nothing started, where the host cannot be had.
int run(const RunOptions& options);

}  // namespace hostsim
