// driver_files.h - the files of the legacy driver below the root of the host, updated from the model: the
// node and the link-state files.
#pragma once

#include "path_map.h"

namespace hostsim {

// Updates the files of this kind. A changed file is replaced, so that readers of the old one keep it.
void refresh_driver_files(PathKind kind) noexcept;

}  // namespace hostsim
