// fresh_host.h - the host for commands that run for a long time. The library finds ports, virtual ports and FCFs
// only at load, so it is loaded again from time to time. Drivers may keep any call for ever, so all calls are made by
// threads that may be left behind, and a look goes on without those that do not come back.
#pragma once

#include <string>
#include <vector>

#include "host_look.h"
#include "port_probe.h"
#include "renewable.h"

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

    void load(Clock::time_point deadline);
    void name_ports();
    Answer missing_load() const;

    std::chrono::duration<double> most_age_;
    Renewable<Load> load_;
    Clock::time_point load_began_{};
    std::vector<std::string> keys_;  // of the last load's ports, by instance number
};

}  // namespace trelmctl
