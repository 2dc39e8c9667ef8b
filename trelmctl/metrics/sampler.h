// sampler.h - samples the whole host: keeps the library loaded, asks all physical ports, beside each
// other where drivers let calls wait, and goes on without those that do not answer in time.
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

    // These are to be called by one thread at a time.

    // Returns when the deadline has passed at the latest.
    HostSample sample();

    // Begins to load the library anew where that is due and no call hangs; the next sample waits for it. A load that
    // hangs in a driver takes all ports away, so it begins after a sample, in which the drivers have just answered.
    void renew();

    // Whether some call into a driver has not come back.
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

    std::vector<PortNames> known_;  // adapters of the last load
    CounterHistory history_;
};

}  // namespace trelmctl::metrics
