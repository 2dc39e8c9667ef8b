// drawing.h - draws a topology as SVG or in the languages of drawing tools.
#pragma once

#include <string>

#include "options.h"
#include "topology.h"

namespace trelmctl {

std::string drawing_of(const Topology& topology, DrawingFormat format);

std::string_view health_words(Health health);

}  // namespace trelmctl
