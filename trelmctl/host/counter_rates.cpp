#include "counter_rates.h"

#include <fmt/format.h>

#include <algorithm>

#include "requests.h"

namespace trelmctl {

CounterSample sample_counters(const trelm::Adapter& adapter, uint32_t npiv_index) {
    note_request("TRELM_GetPortStats", adapter.instance(), npiv_index);
    const TRELM_PORT_STATS stats = adapter.stats(npiv_index);
    return {std::chrono::steady_clock::now(), stats};
}

double CounterInterval::seconds() const {
    return std::chrono::duration<double>(after.when - before.when).count();
}

std::optional<double> CounterInterval::rate(const Counter& counter) const {
    const uint64_t from = counter.of(before.stats);
    const uint64_t to = counter.of(after.stats);
    if (to < from || seconds() <= 0) return std::nullopt;
    return static_cast<double>(to - from) / seconds();
}

const Counter& counter_named(std::string_view key) {
    return *std::find_if(kCounters.begin(), kCounters.end(),
                         [key](const Counter& counter) { return counter.key == key; });
}

std::string short_rate(std::optional<double> rate) {
    if (!rate) return "reset";
    static constexpr std::string_view kUnits = " kMGTPE";
    double value = *rate;
    std::size_t unit = 0;
    for (; value >= (unit == 0 ? 9999.95 : 999.95) && unit + 1 < kUnits.size(); ++unit) value /= 1000;
    return unit == 0 ? fmt::format("{:.1f}", value) : fmt::format("{:.1f}{}", value, kUnits[unit]);
}

}  // namespace trelmctl
