// fresh_host.h - the host for commands that run for a long time. The library finds ports, virtual ports and FCFs
// only at load, so it is loaded again from time to time. Drivers may keep any call for ever, so all calls are made by
// threads that may be left behind, and a look goes on without those that do not come back.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "host_look.h"
#include "port_probe.h"
#include "workers.h"

namespace trelmctl {

class FreshHost {
  public:
    explicit FreshHost(double most_age_in_seconds);
    ~FreshHost();

    // Asks all ports, on one thread at a time. Takes half a second at most.
    HostLook look(const Wishes& wishes);

    // Whether some call has not come back.
    bool is_stuck();

  private:
    struct Load;
    // What the thread that loads works on: the old load, and then the new one.
    struct Pending {
        std::unique_ptr<Load> load;
    };

    void load(Clock::time_point deadline);
    void name_ports();
    Answer missing_load() const;

    std::chrono::duration<double> most_age_;
    Workers loader_{1};
    std::shared_ptr<Pending> pending_;
    std::unique_ptr<Load> load_;
    Clock::time_point load_began_{};
    std::vector<std::string> keys_;  // of the last load's ports, by instance number
};

}  // namespace trelmctl
