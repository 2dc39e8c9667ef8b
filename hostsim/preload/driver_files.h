// driver_files.h - the files that the legacy driver shows, laid out below the host's root as the model has
// them at the moment: its node's directory and its link-state files.
#pragma once

#include "path_map.h"

namespace hostsim {

// Brings the files of `place` up to date. Readers of the old ones keep them: a changed file takes the other's
// place.
void refresh_driver_files(Place place) noexcept;

}  // namespace hostsim
