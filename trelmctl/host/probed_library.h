// probed_library.h - the library after a load, with a probe for each physical port that the load found. The
// type of the probe says what a port is asked for.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "trelm_mgmt.hpp"
#include "workers.h"

namespace trelmctl {

template <typename Probe>
struct ProbedLibrary {
    // `settings` are further arguments of each probe.
    template <typename... Settings>
    explicit ProbedLibrary(std::shared_ptr<const trelm::Library> loaded, const Settings&... settings)
        : library(std::move(loaded)), workers(library->port_count()) {
        for (uint32_t instance = 0; instance < library->port_count(); ++instance)
            probes.push_back(std::make_shared<Probe>(library, instance, settings...));
    }

    // Calls `ask` with each probe, and returns at the deadline at the latest. Calls that have not returned by
    // then keep their probes.
    template <typename Ask>
    void ask_all(const Ask& ask, Clock::time_point deadline) {
        workers.run([probes = probes, ask](std::size_t i) { ask(*probes[i]); }, deadline);
    }

    std::shared_ptr<const trelm::Library> library;
    std::vector<std::shared_ptr<Probe>> probes;
    Workers workers;
};

}  // namespace trelmctl
