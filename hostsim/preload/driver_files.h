// driver_files.h - the files of the legacy driver below the host's root, as the model has them at the moment:
// the node and the link-state files.
#pragma once

#include "path_map.h"

namespace hostsim {

// Brings the files of this kind up to date. A changed file is replaced, so that readers of the old one keep
// it.
void refresh_driver_files(PathKind kind) noexcept;

}  // namespace hostsim
