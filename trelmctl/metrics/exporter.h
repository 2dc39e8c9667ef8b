// exporter.h - `trelmctl metrics --listen`: serves metrics until a signal ends it.
#pragma once

#include <string>

#include "page.h"
#include "sampler.h"

namespace trelmctl::metrics {

// Returns after SIGINT or SIGTERM. Throws CommandFailed if it cannot start.
void serve(const SamplerSettings& sampling, const std::string& address, const std::string& web_config,
           Draw draw);

}  // namespace trelmctl::metrics
