// counter_rates.h - counters at a moment, and their growth per second between two moments.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "counters.h"
#include "trelm_mgmt.hpp"

namespace trelmctl {

struct CounterSample {
    std::chrono::steady_clock::time_point when;
    TRELM_PORT_STATS stats;
};

// Throws trelm::Error.
CounterSample sample_counters(const trelm::Adapter& adapter, uint32_t npiv_index);

// Two successive samples. A counter that decreased was reset in between and has no rate.
struct CounterInterval {
    const CounterSample& before;
    const CounterSample& after;

    double seconds() const;
    std::optional<double> rate(const Counter& counter) const;
};

const Counter& counter_named(std::string_view key);

// With a unit prefix, at most seven characters: "12.3M"; "reset" if there is no rate.
std::string short_rate(std::optional<double> rate);

}  // namespace trelmctl
