// sampler.h - samples the whole host: keeps the library loaded, asks all physical ports, beside each
// other where drivers let calls wait, and goes on without those that do not answer in time.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "samples.h"
#include "workers.h"

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

    // To be called by one thread at a time. Returns when the deadline has passed at the latest.
    HostSample sample();

    // Whether some call into a driver has not come back.
    bool is_stuck();

  private:
    struct Load;
    // What the thread that loads works on: the old load, and then the new one.
    struct Pending {
        std::unique_ptr<Load> load;
    };

    bool is_due_for_load() const;
    void load(Clock::time_point deadline);
    void date_counters(PortSample& port);

    SamplerSettings settings_;
    Workers loader_{1};
    std::shared_ptr<Pending> pending_;
    std::unique_ptr<Load> load_;
    Clock::time_point loaded_at_{};
    bool last_complete_ = true;
    uint64_t round_ = 0;

    // The counters of a port as they were sampled last, by the port's identity.
    struct Seen {
        TRELM_PORT_STATS stats;
        double when;  // seconds since the epoch
        std::optional<double> counting_since;
    };
    std::map<std::string, Seen> seen_;
};

}  // namespace trelmctl::metrics
