#include "counter_history.h"

#include <chrono>
#include <cstddef>

namespace trelmctl::metrics {
namespace {

// A limit for the ports whose counters are remembered. No host has that many.
constexpr std::size_t kMostRemembered = 65536;

double seconds_since_epoch() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

}  // namespace

CounterDates CounterHistory::date(const std::string& identity, const TRELM_PORT_STATS& stats) {
    if (seen_.size() > kMostRemembered) seen_.clear();
    Seen& seen = seen_[identity];
    for (std::size_t i = 0; i < kCounters.size(); ++i) {
        const uint64_t value = kCounters[i].of(stats);
        if (value < seen.values[i]) seen.dates[i] = seen.when;
        seen.values[i] = value;
    }
    seen.when = seconds_since_epoch();
    return seen.dates;
}

}  // namespace trelmctl::metrics
