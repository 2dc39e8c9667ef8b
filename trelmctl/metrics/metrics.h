// metrics.h - `trelmctl metrics` and its settings: what to sample, in which format, and where to write it.
#pragma once

#include <optional>
#include <string>

#include "exposition.h"
#include "page.h"
#include "sampler.h"

namespace trelmctl {
class Output;
}

namespace trelmctl::metrics {

struct Settings {
    SamplerSettings sampling;
    std::optional<Format> format;  // default: OpenMetrics for standard output, the older format for a file
    std::string output;            // file to replace; empty: standard output
    bool describe = false;         // list the metrics instead of sampling them
    std::string listen;            // address to serve on instead of writing once; empty: none
    std::string web_config;        // file with users and TLS; empty: neither
};

// `draw` draws the topology on the server's page.
void run(const Settings& settings, Output& output, Draw draw);

}  // namespace trelmctl::metrics
