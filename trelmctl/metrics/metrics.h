// metrics.h - `trelmctl metrics` as the command line gives it: what to sample, in which format, and where to.
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
    std::optional<Format> format;  // default: the one that the reader of the output takes
    std::string output;            // file to replace; empty: standard output
    bool describe = false;         // list the metrics in place of sampling them
    std::string listen;            // address to serve on in place of writing once; empty: none
    std::string web_config;        // file with users and TLS; empty: neither
};

// `draw` is for the picture on the server's page.
void run(const Settings& settings, Output& output, Draw draw);

}  // namespace trelmctl::metrics
