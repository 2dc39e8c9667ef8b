// host_file.h - host files: JSON with comments that describes a host. Every mistake in one is told with its
// place and with what is allowed there; a file is taken as a whole or not at all.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "hostsim_api.h"
#include "model.h"

namespace hostsim {

// Directories of LUNs are relative to `directory`. HostError "NAME:LINE:COLUMN: reason" or "NAME:
// /json/pointer: reason".
HOSTSIM_API Model parse_host(std::string_view text, const std::string& name,
                             const std::filesystem::path& directory);

// HostError also for a file that cannot be read.
HOSTSIM_API Model read_host_file(const std::filesystem::path& path);

}  // namespace hostsim
