// page.h - a sample as an HTML page: the state of each port, and a picture of what it is connected to.
#pragma once

#include <string>

#include "samples.h"
#include "topology.h"

namespace trelmctl::metrics {

// Draws a topology as SVG.
using Draw = std::string (*)(const Topology& topology);

std::string render_page(const HostSample& host, Draw draw);

}  // namespace trelmctl::metrics
