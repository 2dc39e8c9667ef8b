// fresh_host.h - the host for commands that run for a long time. The library finds ports, virtual ports and
// FCFs only at load, so it is loaded again from time to time. Any call may hang in a driver for ever. So
// separate threads make all calls, a look continues without the calls that do not return, and their threads
// may be left behind.
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

    // Asks all ports. Takes half a second at most. Only one thread at a time may call it.
    HostLook look(const Wishes& wishes);

    // Whether a call has not returned.
    bool is_stuck();

  private:
    struct Load;

    void load(Clock::time_point deadline);
    void name_ports();
    Answer missing_load() const;

    std::chrono::duration<double> most_age_;
    Renewable<Load> load_;
    Clock::time_point load_began_{};
    std::vector<std::string> keys_;  // of the ports of the last load, by instance number
};

}  // namespace trelmctl
