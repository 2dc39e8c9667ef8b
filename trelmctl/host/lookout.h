// lookout.h - looks at the host on a thread of its own, so that the caller can attend to keys and signals.
#pragma once

#include <chrono>
#include <future>
#include <optional>

#include "fresh_host.h"

namespace trelmctl {

class Lookout {
  public:
    explicit Lookout(double rescan_seconds) : host_(rescan_seconds) {}

    // Begins a look, unless one is under way.
    void start(const Wishes& wishes);
    bool is_under_way() const { return look_.valid(); }

    // What was found, if that is there by then. Throws CommandFailed where the library cannot be loaded and never
    // could, or the host has no port.
    std::optional<HostLook> take(std::chrono::milliseconds patience);

    // Whether some call has not come back. Nobody can end it, and the library cannot be freed around it: all that is
    // left is to end the process.
    bool is_stuck();

  private:
    FreshHost host_;
    std::future<HostLook> look_;
    bool was_loaded_ = false;
};

}  // namespace trelmctl
