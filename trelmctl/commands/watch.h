// watch.h - `trelmctl stats --watch`.
#pragma once

#include "options.h"
#include "output.h"
#include "ports.h"

namespace trelmctl {

// Shows rates until the wanted number of samples is taken or the user ends it.
void watch_stats(const Options& options, const SelectedPort& port, Output& output);

}  // namespace trelmctl
