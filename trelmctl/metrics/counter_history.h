// counter_history.h - the time at which each counter of a port started to count.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "counters.h"

namespace trelmctl::metrics {

// In the order of the table of counters: seconds since the epoch, or nothing for a counter that was never
// seen to restart.
using CounterDates = std::array<std::optional<double>, kCounters.size()>;

// Remembers the counters of all ports from one sample to the next.
class CounterHistory {
  public:
    // A counter that decreased was reset after its previous sample. The time of that sample becomes its date.
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
