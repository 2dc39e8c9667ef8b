// counter_history.h - since when each counter of a port counts.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "counters.h"

namespace trelmctl::metrics {

// In the order of the table of the counters: seconds since the epoch, of counters that were seen to begin anew.
using CounterDates = std::array<std::optional<double>, kCounters.size()>;

// Remembers the counters of all ports from one sample to the next.
class CounterHistory {
  public:
    // A counter that has gone back counts since some moment after it was last seen, so that moment is its date.
    CounterDates date(const std::string& identity, const TRELM_PORT_STATS& stats);

  private:
    struct Seen {
        std::array<uint64_t, kCounters.size()> values{};
        double when = 0;
        CounterDates dates;
    };
    std::map<std::string, Seen> seen_;
};

}  // namespace trelmctl::metrics
