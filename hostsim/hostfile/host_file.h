// host_file.h - host files: JSON with comments that describes a host. Every mistake is reported with its
// place and with what is allowed there. A file is taken as a whole or not at all.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "hostsim_api.h"
#include "model.h"

namespace hostsim {

// Directories of LUNs are relative to `directory`. Throws HostError with up to ten lines, each
// "NAME:LINE:COLUMN: /json/pointer: reason". `warnings` receives lines of the same form for what no real host
// has.
HOSTSIM_API Model parse_host(std::string_view text, const std::string& name,
                             const std::filesystem::path& directory,
                             std::vector<std::string>* warnings = nullptr);

// Throws HostError also if the file is no regular file or cannot be read.
HOSTSIM_API Model read_host_file(const std::filesystem::path& path,
                                 std::vector<std::string>* warnings = nullptr);

}  // namespace hostsim
