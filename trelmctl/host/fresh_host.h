// fresh_host.h - the library for commands that run for a long time. It finds ports, virtual ports and FCFs
// only at load, so it is loaded again from time to time.
#pragma once

#include <chrono>
#include <memory>

#include "ports.h"

namespace trelmctl {

class FreshHost {
  public:
    // Throws CommandFailed if the first load fails.
    explicit FreshHost(double most_age_in_seconds) : most_age_(most_age_in_seconds) { load(); }

    // Null while a later load fails, for example because the drivers are gone.
    const LoadedHost* get();

  private:
    void load();

    std::chrono::duration<double> most_age_;
    std::chrono::steady_clock::time_point loaded_;
    std::unique_ptr<LoadedHost> host_;
};

}  // namespace trelmctl
