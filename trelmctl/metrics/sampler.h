// sampler.h - samples the whole host. It keeps the library loaded and asks all physical ports, in parallel if
// drivers keep calls waiting. A sample does not wait longer than the deadline for ports that do not answer.
#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

#include "counter_history.h"
#include "renewable.h"
#include "samples.h"

namespace trelmctl::metrics {

struct SamplerSettings {
    std::chrono::duration<double> deadline{5};  // for every port to answer
    std::chrono::duration<double> reload{300};  // from one load of the library to the next
    bool luns = false;
};

class Sampler {
  public:
    explicit Sampler(SamplerSettings settings);
    ~Sampler();

    // Only one thread at a time may call these functions.

    // Returns at the deadline at the latest.
    HostSample sample();

    // Starts to load the library again if that is due and no call hangs. The next sample waits for the load.
    // While a load hangs in a driver, there are no ports. So call this after a sample, when the drivers have
    // just answered.
    void renew();

    // Whether a call into a driver has not returned.
    bool is_stuck();

  private:
    struct Load;

    bool is_due_for_load() const;
    void begin_load();
    std::vector<AdapterSample> ask(Clock::time_point begin, Clock::time_point deadline);

    SamplerSettings settings_;
    Renewable<Load> load_;
    Clock::time_point loaded_at_{};
    bool last_complete_ = true;
    uint64_t round_ = 0;

    std::vector<PortNames> known_;  // by adapter of the last load
    CounterHistory history_;
};

}  // namespace trelmctl::metrics
